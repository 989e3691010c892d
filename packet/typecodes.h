/* The numbers of the message protocol: one list of all packet types and attribute codes.
 *
 * Statistics, access step and trace all need these numbers, so the list stands here and includes nothing; whoever
 * wants more of it than the enum (the table of names) expands IVS_TYPES with a macro of his own. 1 to 255 are
 * packet types, the first byte of a datagram; above 256 is attribute code plus 256. */
#ifndef PACKET_TYPECODES_H
#define PACKET_TYPECODES_H

/* clang-format off */
#define IVS_TYPES(IVS_TYPE)                                                                                          \
    IVS_TYPE(1, GETI)   IVS_TYPE(2, SETI)   IVS_TYPE(3, GETX)   IVS_TYPE(4, SETX)   IVS_TYPE(5, ACKX)                \
    IVS_TYPE(6, CUPD)   IVS_TYPE(7, NUPD)   IVS_TYPE(8, UAUT)   IVS_TYPE(9, COFA)   IVS_TYPE(10, REDI)               \
    IVS_TYPE(11, TEXT)  IVS_TYPE(12, NOTI)  IVS_TYPE(13, SRDP)  IVS_TYPE(14, SACK)  IVS_TYPE(15, SOFF)               \
    IVS_TYPE(16, GGRP)  IVS_TYPE(17, SGRP)  IVS_TYPE(18, GTXT)  IVS_TYPE(19, LOGI)  IVS_TYPE(20, LOGA)               \
    IVS_TYPE(21, KEEP)  IVS_TYPE(22, GETA)  IVS_TYPE(23, SETA)  IVS_TYPE(24, ACKA)  IVS_TYPE(25, MGET)               \
    IVS_TYPE(26, MSET)  IVS_TYPE(27, MACK)  IVS_TYPE(28, TGET)  IVS_TYPE(29, TSET)  IVS_TYPE(30, TACK)               \
    IVS_TYPE(31, TCOM)  IVS_TYPE(32, TDAT)                                                                           \
                                                                                                                     \
    IVS_TYPE(51, GTOP)  IVS_TYPE(52, USER)  IVS_TYPE(53, GAUT)  IVS_TYPE(54, SAUT)  IVS_TYPE(55, GHIS)               \
    IVS_TYPE(56, JOIN)  IVS_TYPE(57, GWIS)  IVS_TYPE(58, FORW)  IVS_TYPE(59, GNEW)  IVS_TYPE(60, GDEL)               \
    IVS_TYPE(61, RAUP)  IVS_TYPE(62, RAUA)  IVS_TYPE(63, RAHC)  IVS_TYPE(64, FTFE)  IVS_TYPE(65, FTRE)               \
    IVS_TYPE(66, MODE)                                                                                               \
                                                                                                                     \
    IVS_TYPE(128, CLAL) IVS_TYPE(129, CVER) IVS_TYPE(132, ADMN) IVS_TYPE(133, AINT) IVS_TYPE(134, AREQ)              \
    IVS_TYPE(135, ACMD) IVS_TYPE(136, AACS) IVS_TYPE(137, ALOG) IVS_TYPE(138, AQER) IVS_TYPE(139, AACK)              \
    IVS_TYPE(140, AHND) IVS_TYPE(141, AFAI) IVS_TYPE(142, ACON) IVS_TYPE(143, APAC) IVS_TYPE(144, HIDE)              \
    IVS_TYPE(145, AUDA) IVS_TYPE(146, AUAN) IVS_TYPE(147, SCNC) IVS_TYPE(148, SCND) IVS_TYPE(149, CGIR)              \
    IVS_TYPE(150, CGIA) IVS_TYPE(151, PING) IVS_TYPE(152, PONG) IVS_TYPE(153, IGNO) IVS_TYPE(154, ESRV)              \
    IVS_TYPE(155, ECLI) IVS_TYPE(156, ELGI) IVS_TYPE(157, ASTT) IVS_TYPE(164, ACCK) IVS_TYPE(165, ENCR)              \
                                                                                                                     \
    IVS_TYPE(257, TADR) IVS_TYPE(258, TURL) IVS_TYPE(259, TNAM) IVS_TYPE(260, TVER) IVS_TYPE(261, TGRL)              \
    IVS_TYPE(262, TMEL) IVS_TYPE(263, TGAT) IVS_TYPE(264, TGRP) IVS_TYPE(265, TKEY) IVS_TYPE(266, TINF)              \
    IVS_TYPE(267, TPOS) IVS_TYPE(268, TMOS) IVS_TYPE(269, TCLL) IVS_TYPE(276, TSCL) IVS_TYPE(277, TNAL)              \
    IVS_TYPE(285, TCLA) IVS_TYPE(286, TATT) IVS_TYPE(287, TCHA) IVS_TYPE(288, TCHH) IVS_TYPE(289, TAIN)              \
    IVS_TYPE(290, TUSL) IVS_TYPE(291, TLNL) IVS_TYPE(292, TSNL) IVS_TYPE(293, TSCA) IVS_TYPE(294, TGHO)              \
    IVS_TYPE(384, CBAD) IVS_TYPE(385, CHID) IVS_TYPE(386, CSID)
/* clang-format on */

/** IVS_TYPE_GETI = 1 and so on. */
enum {
#define IVS_TYPE_CONSTANT(code, name) IVS_TYPE_##name = (code),
    IVS_TYPES(IVS_TYPE_CONSTANT)
#undef IVS_TYPE_CONSTANT
};

/** Indices of a table by type: attribute codes begin behind the packet types, the last index takes what has no
 *  place of its own. */
enum { IVS_TYPE_ATTRIBUTES = 256, IVS_TYPE_UNKNOWN = 512, IVS_TYPE_COUNT = 513 };

/** In front of a packet sent under an access key stand the byte IVS_TYPE_ACCK and the key. */
enum { IVS_KEY_SIZE = 16, IVS_KEY_PREFIX = 1 + IVS_KEY_SIZE };

/** In front of a packet sent reliably stand the byte IVS_TYPE_SRDP, an id and flags. */
enum { IVS_SRDP_HEAD = 4 };

#endif
