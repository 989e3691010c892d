/* The catalogue of the message protocol: names by number, refusal reasons, integers of variable length. */
#include <ctype.h>
#include <gtest/gtest.h>
#include <map>
#include <sstream>

#include "ivs/ivsi.h"
#include "tests/support/bytes.h"

namespace {

/** Names by number, from a list in which a number stands in front of those that count up from it. */
std::map<int, std::string> numbered(const char *list) {
    std::map<int, std::string> names;
    std::istringstream words(list);
    int next = 0;
    for (std::string word; words >> word;) {
        if (isdigit(word[0]) != 0) {
            next = std::stoi(word);
        } else {
            names[next++] = word;
        }
    }
    return names;
}

TEST(Catalogue, NamesWhatHasANameAndNumbersTheRest) {
    auto names = numbered(
        "1 GETI SETI GETX SETX ACKX CUPD NUPD UAUT COFA REDI TEXT NOTI SRDP SACK SOFF GGRP SGRP GTXT LOGI LOGA KEEP "
        "GETA SETA ACKA MGET MSET MACK TGET TSET TACK TCOM TDAT 51 GTOP USER GAUT SAUT GHIS JOIN GWIS FORW GNEW GDEL "
        "RAUP RAUA RAHC FTFE FTRE MODE 128 CLAL CVER 132 ADMN AINT AREQ ACMD AACS ALOG AQER AACK AHND AFAI ACON APAC "
        "HIDE AUDA AUAN SCNC SCND CGIR CGIA 151 PING PONG IGNO ESRV ECLI ELGI ASTT 164 ACCK ENCR 257 TADR TURL TNAM "
        "TVER TGRL TMEL TGAT TGRP TKEY TINF TPOS TMOS TCLL 276 TSCL TNAL 285 TCLA TATT TCHA TCHH TAIN TUSL TLNL TSNL "
        "TSCA TGHO 384 CBAD CHID CSID");
    for (int index = 0; index <= 512; index++) {
        std::string expected = names.contains(index) ? names[index] : std::to_string(index);
        expected.resize(4, ' ');
        EXPECT_EQ(ivs_packet_names[index], expected);
    }
}

TEST(Catalogue, NamesTheReasonsOfARefusal) {
    auto names = numbered("1 UNCO OORE DUPL INID BADD AUTH UNCL BADV BADS NEED BADU NOMO 15 BADN BADI BADA");
    for (int reason = 0; reason < 256; reason++) {
        const char *name = ivs::refusal_name(reason);
        EXPECT_EQ(name != nullptr ? name : "", names.contains(reason) ? names[reason] + " " : "") << reason;
    }
}

/** Holds values and their coded forms, written one behind the other, against each other; only read without `put`. */
template <class Value>
void expect_forms(int (*put)(Value, unsigned char *), int (*get)(const unsigned char *, Value *), const char *forms) {
    std::istringstream words(forms);
    int64_t value = 0;
    for (std::string hex; words >> value >> hex;) {
        Value result = 0x5555;
        EXPECT_EQ(get(bytes_of(hex).data(), &result), static_cast<int>(hex.size() / 2)) << hex;
        EXPECT_EQ(result, static_cast<Value>(value)) << hex;
        if (put == nullptr) continue;
        Bytes written(7, 0x77);
        EXPECT_EQ(put(result, written.data()), static_cast<int>(hex.size() / 2)) << value;
        EXPECT_EQ(hex_of(written), hex + std::string(14 - hex.size(), '7')) << value << ", and nothing behind it";
    }
}

TEST(Integers, TakeTheShortestForm) {
    expect_forms(ivs_put_int, ivs_get_int,
                 "0 00  1 01  63 3f  64 8040  8191 9fff  8192 c02000  1048575 cfffff  1048576 e0100000 "
                 "134217727 e7ffffff  134217728 f008000000  2147483647 f07fffffff "
                 "-1 7e  -63 40  -64 bfbf  -8191 a000  -8192 dfdfff  -1048575 d00000  -1048576 efefffff "
                 "-134217727 e8000000  -134217728 f0f8000000  -2147483648 f080000000");
    expect_forms(ivs_put_uint, ivs_get_uint,
                 "0 00  127 7f  128 8080  16383 bfff  16384 c04000  2097151 dfffff  2097152 e0200000 "
                 "268435455 efffffff  268435456 f010000000  4294967295 f0ffffffff");
    expect_forms<int32_t>(nullptr, ivs_get_int, "0 7f  0 bfff  0 dfffff  0 efffffff  0 8000  0 ff00000000");
    expect_forms<uint32_t>(nullptr, ivs_get_uint, "9 f700000009");
}

}  // namespace
