/* The catalogue of the message protocol: names by number, refusal reasons, integers of variable length. */
#include <gtest/gtest.h>
#include <limits.h>
#include <map>
#include <sstream>

#include "ivs/ivsi.h"
#include "tests/support/bytes.h"

namespace {

/** A stretch of names, each with the number behind that of the one in front. */
struct Run {
    int first;
    const char *names;
};

std::map<int, std::string> numbered(std::initializer_list<Run> runs) {
    std::map<int, std::string> names;
    for (auto [index, list] : runs) {
        std::istringstream words(list);
        for (std::string name; words >> name; index++) names[index] = name;
    }
    return names;
}

TEST(Catalogue, NamesWhatHasANameAndNumbersTheRest) {
    auto names = numbered(
        {{1, "GETI SETI GETX SETX ACKX CUPD NUPD UAUT COFA REDI TEXT NOTI SRDP SACK SOFF GGRP SGRP GTXT LOGI LOGA"},
         {21, "KEEP GETA SETA ACKA MGET MSET MACK TGET TSET TACK TCOM TDAT"},
         {51, "GTOP USER GAUT SAUT GHIS JOIN GWIS FORW GNEW GDEL RAUP RAUA RAHC FTFE FTRE MODE"},
         {128, "CLAL CVER"},
         {132, "ADMN AINT AREQ ACMD AACS ALOG AQER AACK AHND AFAI ACON APAC HIDE AUDA AUAN SCNC SCND CGIR CGIA"},
         {151, "PING PONG IGNO ESRV ECLI ELGI ASTT"},
         {164, "ACCK ENCR"},
         {257, "TADR TURL TNAM TVER TGRL TMEL TGAT TGRP TKEY TINF TPOS TMOS TCLL"},
         {276, "TSCL TNAL"},
         {285, "TCLA TATT TCHA TCHH TAIN TUSL TLNL TSNL TSCA TGHO"},
         {384, "CBAD CHID CSID"}});
    EXPECT_EQ(names.size(), 106U);
    for (int index = 0; index <= 512; index++) {
        std::string expected = names.contains(index) ? names[index] : std::to_string(index);
        expected.resize(4, ' ');
        EXPECT_EQ(ivs_packet_names[index], expected);
    }
}

TEST(Catalogue, NamesTheReasonsOfARefusal) {
    auto names =
        numbered({{1, "UNCO OORE DUPL INID BADD AUTH UNCL BADV BADS NEED BADU NOMO"}, {15, "BADN BADI BADA"}});
    for (int reason = 0; reason < 256; reason++) {
        const char *name = ivs::refusal_name(reason);
        EXPECT_EQ(name != nullptr ? name : "", names.contains(reason) ? names[reason] + " " : "") << reason;
    }
}

template <class Value>
void expect_read(int (*get)(const unsigned char *, Value *), const char *hex, Value expected) {
    Value value = 0x5555;
    EXPECT_EQ(get(bytes_of(hex).data(), &value), static_cast<int>(bytes_of(hex).size())) << hex;
    EXPECT_EQ(value, expected) << hex;
}

/** What a put call writes, and nothing behind it. */
template <class Value>
std::string written(int (*put)(Value, unsigned char *), Value value) {
    Bytes bytes(7, 0x77);
    const auto length = static_cast<size_t>(put(value, bytes.data()));
    return bytes.back() != 0x77 || length > 5 || bytes[length] != 0x77 ? "too much" : hex_of(bytes.data(), length);
}

TEST(Integers, TakeTheShortestForm) {
    using Signed = std::pair<int32_t, const char *>;
    for (const auto &[value, hex] : {Signed{0, "00"},
                                     Signed{1, "01"},
                                     Signed{63, "3f"},
                                     Signed{64, "8040"},
                                     Signed{8191, "9fff"},
                                     Signed{8192, "c02000"},
                                     Signed{1048575, "cfffff"},
                                     Signed{1048576, "e0100000"},
                                     Signed{134217727, "e7ffffff"},
                                     Signed{134217728, "f008000000"},
                                     Signed{INT_MAX, "f07fffffff"},
                                     Signed{-1, "7e"},
                                     Signed{-63, "40"},
                                     Signed{-64, "bfbf"},
                                     Signed{-8191, "a000"},
                                     Signed{-8192, "dfdfff"},
                                     Signed{-1048575, "d00000"},
                                     Signed{-1048576, "efefffff"},
                                     Signed{-134217727, "e8000000"},
                                     Signed{-134217728, "f0f8000000"},
                                     Signed{INT_MIN, "f080000000"}}) {
        EXPECT_EQ(written(ivs_put_int, value), hex) << value;
        expect_read(ivs_get_int, hex, value);
    }
    using Unsigned = std::pair<uint32_t, const char *>;
    for (const auto &[value, hex] :
         {Unsigned{0, "00"}, Unsigned{127, "7f"}, Unsigned{128, "8080"}, Unsigned{16383, "bfff"},
          Unsigned{16384, "c04000"}, Unsigned{2097151, "dfffff"}, Unsigned{2097152, "e0200000"},
          Unsigned{268435455, "efffffff"}, Unsigned{268435456, "f010000000"}, Unsigned{UINT_MAX, "f0ffffffff"}}) {
        EXPECT_EQ(written(ivs_put_uint, value), hex) << value;
        expect_read(ivs_get_uint, hex, value);
    }
    for (const char *zero : {"7f", "bfff", "dfffff", "efffffff", "8000", "ff00000000"}) {
        expect_read(ivs_get_int, zero, 0);  // never written
    }
    expect_read(ivs_get_uint, "f700000009", 9U);
}

}  // namespace
