#!/usr/bin/env python3
"""Writes the seed files of fuzz/corpus/: small inputs, one for each thing that a target tells apart.

Seeds that came from a mended fault are kept beside them under names that begin with "found-"; this script leaves
those alone.
"""

import pathlib
import struct

CORPUS = pathlib.Path(__file__).resolve().parent / "corpus"
CLEAR, SHOWN, ENVELOPE, TICK = range(4)
ACCK, ENCR, RAUP, RAUA, PING, PONG, COFA, SRDP = 164, 165, 61, 62, 151, 152, 9, 13


def text(*strings):
    return b"".join(s.encode() + b"\0" for s in strings)


def request(sequence, *strings, function=1, kind=RAUP):
    return bytes([kind, function, 0]) + struct.pack(">I", sequence) + text(*strings)


def step(way, packet=b"", peer=0, wait=0):
    control = bytes([way | peer << 2 | wait << 6])
    return control if way == TICK else control + struct.pack(">H", len(packet)) + packet


def requests():
    get = request(7, "DB", "G", "USERS", "ID", "anna", "NAME")
    for way, name in ((CLEAR, "clear"), (SHOWN, "shown"), (ENVELOPE, "sealed")):
        yield f"request-{name}", step(way, get, peer=1)
        yield f"ping-{name}", step(way, bytes([PING]) + b"echo", peer=2)
        yield f"unknown-{name}", step(way, bytes([200]) + b"what", peer=3)
        yield f"empty-{name}", step(way, b"", peer=1)
    yield "replay", step(SHOWN, get, 1) * 2 + step(SHOWN, request(8, "DB"), 1) + step(SHOWN, get, 1)
    yield "asynchronous", b"".join(step(ENVELOPE, request(n, "a", function=4), 2) for n in (1, 2, 1))
    yield "sessions-swept", step(SHOWN, get, 4) + step(TICK, wait=3) + step(SHOWN, get, 5) + step(TICK, wait=1)
    yield "answer", step(CLEAR, request(0x01020304, "0", "Anna", function=2, kind=RAUA), 2)
    yield "answer-refused", step(CLEAR, request(0x01020304, function=3, kind=RAUA), 2)
    yield "refusal", step(CLEAR, bytes([COFA, 1, 61]), 3)
    yield "reliable", step(CLEAR, bytes([SRDP, 0, 7, 0, PING]), 3)
    yield "from-ourselves", step(CLEAR, bytes([PING]), 0)
    yield "framed", step(SHOWN, request(1, "\x01%41b%7e\x01", "\x01", "\x01%4\x01", "\x02\x03"), 1)
    yield "results-dropped", step(SHOWN, request(1, "clear", "x", "y"), 1)
    yield "results-full", step(SHOWN, request(1, "fill", "0123456789" * 9, "y"), 1)
    yield "key-in-envelope", step(ENVELOPE, bytes([ACCK]) + b"K" * 16 + get, 1)
    yield "envelope-in-envelope", step(ENVELOPE, bytes([ENCR]) + b"E" * 48, 2)
    yield "unterminated", step(SHOWN, get[:-1], 1)


def envelopes():
    key = bytes(range(16))
    for length in (0, 1, 15, 16, 17, 21, 33, 49):
        yield f"plain-{length}", key + bytes([PING]) + b"x" * (length - 1) if length else key
    for length in (16, 17, 32, 33, 34, 49, 65):
        yield f"sealed-{length}", key + bytes([ENCR]) + bytes(range(length - 1))
    yield "padding-only", key + b"\xa5" * 20
    yield "padding-first", key + b"\xa5\xa5rest"
    yield "shown-key", bytes.fromhex("0123456789abcdef0123456789abcdef") + request(1, "DB")
    yield "key-alone", key + bytes([ACCK]) + key


# Words that steer the layouts of the trace: a session word, a client of the extended form, a plain client.
SESSION, EXTENDED, PLAIN = (struct.pack(">I", n) for n in (0x80000001, 0x40000002, 3))


TRACED = (*range(1, 31), 51, 52, *range(55, 66), 128, 129, 133, 141, 145, 149, 151, 156, 200)
ATTRIBUTES = {  # by form of packet: those whose value is shown
    4: (1, 2, 4, 5, 6, 7, 8, 128), 5: (7, 8), 22: (13, 21, 29, 37), 23: (13, 20, 29, 37),
}


def traces():
    tail = bytes([5]) + b"topic" + bytes([4]) + b"text\n\x1b" + bytes(range(1, 40))
    for kind in set(TRACED) - {SRDP, COFA, 58}:
        yield f"type-{kind:03}", bytes([kind]) + SESSION + EXTENDED + struct.pack(">H", 9) + tail
    for kind in (2, 10, 15, 17):
        yield f"plain-client-{kind:03}", bytes([kind]) + PLAIN + tail
    for kind, attributes in ATTRIBUTES.items():
        head = bytes([kind]) + (PLAIN if kind < 10 else SESSION + b"\0\1")
        for attribute in attributes:
            yield f"attribute-{kind:03}-{attribute:03}", head + bytes([attribute]) + b"\0" * 7 + b"value"
    for attribute in (1, 4, 30):
        head = bytes([23]) + SESSION + b"\0\1" + bytes([29])
        yield f"client-attribute-{attribute:03}", head + PLAIN * 2 + bytes([attribute]) + b"\1" * 6
    yield "empty", b""
    yield "reliable-ping", bytes([SRDP, 0, 1, 0, PING]) + b"hello"
    yield "refused-request", bytes([COFA, 1]) + request(1, "DB")
    yield "refused-unnamed", bytes([COFA, 13])
    yield "forwarded", bytes([58]) + PLAIN * 2 + bytes([PING])
    yield "key-shown", bytes([ACCK]) + b"K" * 16 + request(1, "DB")
    yield "deep", bytes([COFA, 1]) * 40 + bytes([SRDP, 0, 1, 0]) * 10 + bytes([PING])
    yield "forged-line", bytes([19]) + b"\0\0\0\1\0\1" + bytes([14]) + b"x\nE20011023 PID" + bytes([1, 2]) + b"\r\n"
    yield "many-members", bytes([56]) + PLAIN * 3 + bytes([255])


def expansions():
    def code(pairs, end, room, data):
        body = b"".join(bytes([symbol]) + struct.pack(">I", weight) for symbol, weight in pairs)
        return bytes([len(pairs)]) + body + struct.pack(">H", end) + bytes([room]) + data

    skewed = [(byte, min(2**n, 2**32 - 1)) for n, byte in enumerate(b"etaoinshrdlucmfw")]
    deep = [(n, 2 ** min(n, 31)) for n in range(64)]
    fibonacci, one, two = [], 1, 1
    for n in range(46):
        fibonacci.append((n, one))
        one, two = two, one + two
    yield "flat", code([(n, 1) for n in range(255)], 1, 40, b"the quick brown fox")
    yield "skewed", code(skewed, 1, 8, bytes(range(0, 256, 5)))
    yield "deep", code(deep, 1, 255, b"\xff" * 40 + b"\0" * 8)
    yield "fibonacci", code(fibonacci, 0, 3, b"\0" * 30)
    yield "no-weights", code([], 0, 16, b"abc")
    yield "heavy-end", code([(97, 1)], 65535, 16, b"\x55\xaa")
    yield "sums-wrap", code([(n, 2**32 - 1) for n in range(8)], 1, 16, b"\x55\xaa" * 8)
    yield "no-bytes", code(skewed, 1, 0, b"")


def configurations():
    def file(content, paragraph=64):
        return bytes([paragraph]) + content

    yield "usual", file(b"# names\nDB one\nDB two\n\n  key   value with blanks  \n")
    yield "no-values", file(b"alone\nalone\n  \n#\n")
    yield "continued", file(b"key one \\\n  two \\\n\nnext 1\n")
    yield "continued-to-end", file(b"key one \\")
    yield "line-feeds", file(b"mail hello\\nworld\\n\\n\\\\n\n")
    yield "overwritten", file(b"key 1\nother 2\nkey 3\n")
    yield "long-line", file(b"key " + b"x" * 4100 + b" tail\nnext 1\n", 255)
    yield "long-key", file(b"k" * 4200 + b" value\n")
    yield "too-long-value", file(b"key a\\\n" + (b"y" * 4000 + b"\\\n") * 5)
    yield "zero-bytes", file(b"key\0hidden value\0more\n\0\nk \0\n")
    yield "carriage-returns", file(b"key value\r\n\r\n\tkey2\tvalue2\v\f\r\n")
    yield "paragraphs", file(b"one\ntwo\n\n# not\nthree\nfour\n\n\nfive", 8)
    yield "tiny-paragraphs", file(b"one\ntwo\n", 1)
    yield "no-line-end", file(b"key value")
    yield "access-keys", file(b"127.0.0.1 encrypt abcdefghijklmnopabcdefghijklmnop\nhost encrypt\n")


def statements():
    for number, sql in enumerate((
        "SELECT NAME, CITY FROM USERS WHERE ID = :1",
        "INSERT INTO T (A, B) VALUES (:A, :a, :B, ?1)",
        "UPDATE T SET A = ':1', \"B:2\" = :2 -- :3\nWHERE C = :4 /* :5 */",
        "SELECT 'it''s', \"na\"\"me\" FROM T WHERE A <> :1 AND B >= :2 || :1",
        "SELECT A::text FROM T WHERE B = :B::int",
        "SELECT 'not closed :1", "SELECT \"not closed :1", "SELECT /* not closed :1", "SELECT -- :1",
        ":", "::", ":::1", "?", "?1", ":1:2", "a:1", "1:1", ": 1", "1e5.:x", "'", "", "/*/ :1", "--",
        "\u00e4 = :\u00f6",
        "SELECT A FROM T ORDER BY A LIMIT :9 OFFSET :10", ":$ :# :_", "x != :1; y == :2",
    )):
        yield f"statement-{number:02}", sql.encode()


def conversations():
    receive, tick, send, forward, ack, ack_sent, cancel, clock = range(8)

    def at(what, *rest, peer=0, wait=0):
        content = b"".join(struct.pack(">H", len(part)) + part if isinstance(part, bytes) else bytes([part])
                           for part in rest)
        return bytes([what | peer << 3 | wait << 5]) + content

    def data(number):
        return bytes([SRDP]) + struct.pack(">H", number) + bytes([0, PING]) + b"hello"

    second, lifetime_over = 1, 7  # places in the table of waits
    yield "copies", b"\x10" + at(receive, data(1)) * 2 + at(receive, data(1), peer=1) + at(receive, data(2))
    yield "forgotten", (b"\x10" + at(receive, data(1)) + at(tick, wait=lifetime_over) + at(receive, data(1)) * 2)
    yield "too-many", b"\x02" + b"".join(at(receive, data(n % 5)) for n in range(12))
    yield "too-short", b"\x10" + b"".join(at(receive, data(1)[:n]) + at(ack, data(1)[:n]) + at(forward, data(1)[:n])
                                          for n in range(5))
    yield "given-up", b"\x10" + at(send, 1, PING, b"body") + at(forward, data(9)) + at(tick, wait=second) * 70
    yield "acknowledged", b"\x10" + at(forward, data(9)) * 3 + (at(ack_sent, 1) + at(tick, wait=second)) * 6
    yield "late", b"\x10" + at(forward, data(9)) + at(tick, wait=lifetime_over) * 2 + at(ack_sent, 0)
    yield "cancelled", (b"\x10" + at(send, 1, 23, bytes(3) + b"abc") + at(send, 1, 22, b"") + at(send, 2, 23, b"x")
                        + at(cancel, 1, 23, 98) + at(cancel, 1, 22, 0) + at(cancel, 2, 0, 0) + at(tick, wait=5))
    yield "long", b"\x10" + at(send, 1, PING, b"b" * 700) + at(forward, data(1) + b"f" * 700) + at(tick, wait=6)
    yield "clock-set", (b"\x10" + at(receive, data(1)) + at(forward, data(1)) + at(clock, 0x7f) + at(tick)
                        + at(receive, data(1)) + at(clock, 0x80) + at(tick, wait=5) + at(receive, data(1)))
    yield "strange-ack", b"\x10" + at(ack, bytes([14, 0, 7])) + at(ack, b"", peer=3) + at(ack_sent, 0)


def orders():
    unchecked, reread, traced = 32, 64, 128

    def order(action, way=SHOWN, peer=0, flags=reread, rest=b""):
        return bytes([way | peer << 2 | flags]) + bytes([132]) + b"\1\2\3\4\5\6" + bytes([action]) + rest

    for action in (0, 1, 2, 3, 4, 5, 255):
        for way, name in ((CLEAR, "clear"), (SHOWN, "shown"), (ENVELOPE, "sealed")):
            yield f"action-{action:03}-{name}", order(action, way, peer=4, rest=b"rest")
        yield f"action-{action:03}-unchecked", order(action, CLEAR, peer=5, flags=unchecked | traced)
    for peer in range(8):
        yield f"from-{peer}", order(2, ENVELOPE, peer, traced | reread)
        yield f"strange-from-{peer}", order(9, ENVELOPE, peer)
    yield "nobody-reads-again", order(3, flags=0) + order(3, flags=0)
    yield "too-short", order(1, peer=4)[:-1]
    yield "type-alone", order(1, peer=4)[:2]
    yield "nothing", order(1, peer=4)[:1]
    yield "no-order", bytes([SHOWN]) + bytes([PING]) + bytes(6) + b"\1"
    yield "long", order(7, ENVELOPE, 4, rest=b"x" * 900)


def mappings():
    usual = b"10.0.0.1:4000 192.168.1.1:5000\n"
    yield "usual", b"# behind the gateway\n" + usual + b"10.0.0.2:4000\t192.168.1.1:5001\n\n"
    yield "twice", usual + b"10.0.0.1:4000 192.168.1.2:5000\n10.0.0.3:1 192.168.1.1:5000\n"
    yield "names", b"gateway:1 localhost:2\nlocalhost:3 nobody:4\nnobody:5 gateway:6\n"
    yield "one-column", b"10.0.0.1:4000\n" + usual
    yield "three-columns", b"10.0.0.1:4000 192.168.1.1:5000 more\n"
    yield "no-ports", b"10.0.0.1 192.168.1.1\n10.0.0.1: 192.168.1.1:\n10.0.0.1:x 10.0.0.1:1\n"
    yield "large-ports", b"1.1.1.1:65536 1.1.1.1:99999999999999999999\n1.1.1.1:1x 1.1.1.1:0\n"
    yield "strange-addresses", b"256.1.1.1:1 0.0.0.0:2\n1.2:3 1.2.3.4.5:4\n0x7f.1:5 255.255.255.255:6\n:7 1.:8\n"
    yield "many-colons", b"1.1.1.1:2:3 1.1.1.1::4\n::1:5 1.1.1.1:6\n"
    yield "continued", b"1.1.1.1:1 \\\n 2.2.2.2:2\n1.1.1.1:1 2.2.2.2:2\\\n3\n"
    yield "zero-bytes", b"1.1.1.1:1\0 2.2.2.2:2\n1.1.1.1:1 2.2.2.2:2\0\n"
    yield "long-line", b"1.1.1.1:" + b"1" * 4200 + b" 2.2.2.2:2\n" + usual
    yield "carriage-returns", usual.replace(b"\n", b"\r\n") * 2 + b"1.1.1.1:1 2.2.2.2:2"


def http_requests():
    get, post = b"GET /a?b=c HTTP/1.0\r\nHost: x\r\n\r\n", b"POST /a\nContent-length: 5\n\nhello"
    for piece in (0, 6, 255):
        cut = bytes([piece])
        yield f"get-{piece}", cut + get
        yield f"post-{piece}", cut + post
    yield "any-case", b"\3gEt\t\v/x\n \t\f\n"
    yield "no-url", b"\3GET \r\n\r\n"
    yield "zero-in-url", b"\3GET /a\0b\n\n"
    yield "behind-the-header", b"\x20" + get + b"more\n"
    yield "not-known", b"\1PUT /x\x1b\n\n"
    yield "cut-off", b"\0POS"
    yield "other-spelling", b"\3" + post.replace(b"length", b"Length")
    yield "length-none", b"\3POST /a\n\n"
    yield "length-negative", b"\3POST /a\nContent-length: -5\n\nhello"
    yield "length-huge", b"\3POST /a\nContent-length: 99999999999999999999\n\nhello"
    yield "length-in-url", b"\3POST Content-length: 2\n\nab"
    yield "blank-lines", b"\0POST /a\nContent-length: 3\n\n\n\n\n\n"


def lines():
    yield "usual", b"DB G USERS ID anna NAME\n"
    yield "quoted", b'DB U USERS ID "" NAME "Anna Berg" CITY "say \\"hi\\""\n'
    yield "not-closed", b'DB "open end'
    yield "closed-by-line", b'"one\n"two\n'
    yield "lone-quote", b' "'
    yield "quotes", b'""""" "\\"" \\" "\\'
    yield "adjoining", b'"a"b"c" d"e f"'
    yield "white", b" \t\v\f\r\n\x0b\x1c\x85\xa0 "
    yield "backslashes", b'"\\\\" x" "\\\\\\" \\n"'
    yield "zero-byte", b"one\0two"
    yield "many", b"w " * 1600
    yield "nothing", b""


def answers():
    def packet(*strings, kind=RAUP, function=2, number=b"\1\2\3\4", stranger=0):
        return bytes([stranger, kind, function, 0]) + number + text(*strings)

    yield "result", packet("0", "Anna Berg", "")
    yield "unterminated", packet("0", "Anna")[:-1]
    yield "empty", packet()
    yield "empty-strings", packet(*[""] * 40)
    yield "many", packet(*["x"] * 1600)
    yield "long", packet("y" * 31998)
    yield "refused", packet(function=3)
    for function in (0, 1, 4, 255):
        yield f"function-{function}", packet("0", function=function)
    yield "asynchronous", packet("0", "Anna", kind=RAUA)
    yield "asynchronous-refused", packet(kind=RAUA, function=3)
    yield "other-type", packet("0", kind=PING)
    yield "other-number", packet("0", number=b"\1\2\3\5")
    yield "stranger", packet("0", stranger=1)
    yield "asynchronous-stranger", packet("0", kind=RAUA, stranger=1)
    for length in (0, 1, 2, 3, 6):
        yield f"short-{length}", packet()[:1 + length]


def queries():
    for number, query in enumerate((
        b"", b"a=1&&b=2", b"a=1&a=2&a", b"a=&=b&=&==&a==b&c=1=2", b"%20=%20&+x+=+y+", b"g_secret=1&%67_secret=2",
        b"a=%41%4&b=%&c=%zz&d=%00hidden&%0d%0aX=%0a", b"NOHTTPHEAD=1&SETDATE=1998&SETCOOKIE=x%0ay",
        b"isAdmin=1&isOwner=1&UPDATEOK=", b"T_x=<b>%22&T_NOHTML=1&T_=", b"k=see+http://a.b/c?d%3d%22+http://&http://=x",
        b"k=" + b"%ff%01<&>" * 40, b"&" * 900, b"a=1&" * 900, b"=" * 900,
    )):
        yield f"query-{number:02}", query


def forms():
    def form(*parts, boundary=b"XX", end=b"XX--\r\n"):
        body = b"".join(boundary + b"\r\n" + part + b"\r\n" for part in parts) + end
        return bytes([len(boundary)]) + boundary + body

    def part(body, rest=b'name="x"', more=b""):
        return b"Content-Disposition: form-data; " + rest + b"\r\n" + more + b"\r\n" + body

    upload = part(b"one\r\ntwo\0\1\2\n", b'name="f"; filename="a%41.txt"', b"Content-Type: text/plain \r\n")
    yield "usual", form(part(b" a+b%41 "), upload, part(b""))
    yield "no-file", form(part(b"", b'name="f"; filename=""', b"Content-Type: application/octet-stream\r\n"))
    yield "no-type", form(part(b"lost\r\nkept", b'name="f";filename="b"'))
    yield "no-name", form(part(b"x", b'filename="b"'), part(b"y", b'name='), part(b"z", b';name="n"'))
    yield "no-body", form(part(b"")[:-2], part(b"")[:-2])
    yield "no-boundary", form(end=b"a\nb\n" * 50)
    yield "empty-boundary", form(part(b"x"), boundary=b"")
    yield "long-boundary", form(part(b"x"), boundary=b"B" * 255)
    yield "bare-line-feeds", form(upload).replace(b"\r", b"")
    yield "line-ends", form(part(b"x\r\n\n\n"), part(b"\n\n"), part(b"\r"))
    yield "own-names", form(part(b"1", b'name="g_x"'), part(b"2", b'name="%67_y"'), part(b"3", b'name=""'))
    yield "long-lines", form(part(b"x" * 9000), upload.replace(b"one", b"\0" * 5000))
    yield "one-name", form(upload, part(b"y", b'name="f"'), part(b"z", b'name="f_MIMETYPE"'))
    for cut in (1, 3, 4, 30, 60, 75, 90, 100):
        yield f"cut-{cut:03}", form(upload)[:cut]


def templates():
    def page(*lines, **variables):
        head = b"".join(f"{name}={value}\n".encode() for name, value in variables.items())
        return head + b"\n" + b"".join(line.encode() + b"\n" for line in lines)

    yield "variables", page("<$a> <#b> <$<$a>> <$no> <$a><$a><$a><$a><$a>", a="b", b="<$c>", c="deep")
    yield "own-value", page("<$a>", a="<$a><$a>")
    yield "growing", page("<$a>" * 9, a="<$b>" * 9, b="<$c>" * 9, c="x" * 900)
    yield "conditions", page('<!-- #ifdef variable="a" value="1" -->', "one", '<!--#else variable="a" -->', "other",
                             '<!-- #endif variable="a" -->', '<!-- #ifndef variable="b" -->', "none",
                             '<!-- #endif variable="b" -->', a="1")
    operators = ("<", "<=", ">", ">=", "==", "!=", "contains", "!contains", "is")
    yield "comparisons", page(*(line for o in operators for line in (
        f'<!-- #if variable="a" {o} value="ff" -->', o, '<!-- #else variable="a" -->', f"not {o}",
        '<!-- #endif variable="a" -->')), a="10")
    yield "loops", page('<!-- #for loopname="l" loopvars="a, b" -->', "<$loopindex> <$a> <$b> <$c>",
                        '<!-- #if variable="a" == variable="c" -->', "same", '<!-- #endif variable="a" -->',
                        '<!-- #for loopname="m" loopvars="d" -->', "<$d>", '<!-- #endfor loopname="m" -->',
                        '<!-- #endfor loopname="l" -->', a0="1", a1="2", b1="3", c="1", d_0_0="x", d_1_0="y")
    yield "loop-without-end", page('<!-- #for loopname="l" loopvars="a" -->', "<$a>", a0="1")
    yield "definitions", page('<!-- #define variable="a" value="<$b>" -->', '<!--#define variable="c" substring="hello,1,3"-->',
                              '<!-- #define variable="d" escape="a b" -->', '<!-- #define variable="T_NOHTML" -->',
                              '<!-- #define variable="e" substring="x,-1,99999999999999999999" -->', "<$a><$c><$d>", b="1")
    yield "includes", page('<!-- #include virtual="/proc/self/fd/3" -->', '<!--#include file="no/such"-->')
    yield "two-dots", page('<!-- #include file="a/../b" -->')
    yield "script", page('<!-- #include script="no.pl?a b" -->', '<!--#include script="../x"-->', '<!-- #include script=" x" -->',
                         "after")
    yield "comments", page("a <!--- gone", "gone", "gone --->", "<!--- gone --->", "<!-- stays -->")
    yield "tags", page("[b]x[/b] [B] y [/b] [i]open [q]", g_Tag_B="<b>%s</b>", g_Tag_I="%s%s", g_Tag_Q="<q>")
    yield "tags-growing", page("[b]x[/b]", g_Tag_B="[b]%s%s[/b]")
    yield "active", page("<$a>", a="<script>& {x} < IFRAME onClick=1 <embed a.htm><$COOKIE>", g_a="<script>")
    yield "long-line", page("x" * 5000 + "<$a>" + "<" * 5000, a="y" * 3000)
    yield "not-closed", page("<$a", "<!-- #ifdef variable=", '<!-- #for loopname="', "<!--", "<!-", "[", "[b", a="1")


def variable_files():
    yield "usual", b"# settings\n  # more\nkey value with blanks # kept\n\nkey again\nalone\nline a\\nb\n"
    yield "continued", b"key one \\\n  two\\\n\nnext 1\\"
    yield "long", b"key " + b"x" * 5000 + b"\n" + b"k" * 5000 + b" v\n" + b"c \\\n" + (b"y" * 3000 + b"\\\n") * 3
    yield "zero-bytes", b"key\0hidden value\0more\n\0\nk \0\n"
    yield "carriage-returns", b"key value\r\n\r\n\tkey2\tvalue2\v\f\r\n"
    yield "tags", b"<a> dropped\none\ntwo</a> dropped\n<b c>\n<>\n<b_1></b_1>\n</b_1>\n<a>\nmore\n</a>\n<open>\nrest"
    yield "tags-long", b"<a>\n" + b"x" * 4093 + b"</a>\n" + b"<" + b"n" * 5000 + b">\n"


TARGETS = {
    "request": requests, "envelope": envelopes, "trace": traces, "expander": expansions, "config": configurations,
    "placeholders": statements, "srdp": conversations, "admin": orders, "ipmap": mappings,
    "http": http_requests,
    "words": lines, "reply": answers,
    "query": queries, "multipart": forms, "template": templates, "variables": variable_files,
}

for target, seeds in TARGETS.items():
    folder = CORPUS / target
    folder.mkdir(parents=True, exist_ok=True)
    for old in folder.iterdir():
        if not old.name.startswith("found-"):
            old.unlink()
    for name, content in seeds():
        (folder / name).write_bytes(content)
