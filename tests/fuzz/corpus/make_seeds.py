#!/usr/bin/env python3
"""Writes the seed inputs of the fuzz targets (a few hundred bytes each). Run from this folder;
the files are committed, so this only documents how they were made."""
import struct

RESP = b"<FILECOPY_SECRETAUDIT_RESPONSE>"
header = lambda length, tag=RESP: tag.ljust(32, b"\0") + struct.pack("<i", length)
frame = lambda doc, tag=RESP: header(len(doc) + 1, tag) + doc + b"\0"
datagrams = lambda *parts, ack=0xFF: bytes([ack]) + b"".join(struct.pack("<H", len(p)) + p for p in parts)


def write(folder, name, data):
    with open(f"{folder}/{name}", "wb") as f:
        f.write(data)


whole = frame(b'<SecretCheckResult encryptedpwd="pw" action="1"><SecretFile path="C:\\a.txt"/>'
              b'<EncryptedFile path="C:\\b.txt"/><SecretFile path=""/></SecretCheckResult>')
for name, data in {"single": datagrams(whole), "empty_answer": datagrams(header(2) + b"\0\0"),
                   "three_chunks": datagrams(whole[:40], whole[40:90], whole[90:]),
                   "ack_fails": datagrams(whole[:40], whole[40:], ack=0),
                   "receive_fails": datagrams(whole[:40]) + b"\xff\xff",
                   "wrong_tag": datagrams(b"<FILECOPY_SECRETAUDIT_REQUEST>\0\0" + whole[32:]),
                   "negative_length": datagrams(header(-5) + b"x"),
                   "longer_than_announced": datagrams(header(4) + b"<a/>\0<SecretCheckResult/>"),
                   "entities": datagrams(frame(b'<SecretCheckResult action="-7"><EncryptedFile '
                                               b'path="&lt;&#x41;&amp;"/></SecretCheckResult>'))}.items():
    write("frame_response_fuzzer", name, data)

prologues = {"frame_setup": "48895c2408574883ec20488bf9", "rip_load": "488b05f0ffffff4885c0740590c3",
             "lea_rip": "488d0d10000000e800000000c3", "call_first": "e8100000004883c428c3cccccccccc",
             "jcc_short": "85c974064889c8c3909031c0c3", "jmp_indirect": "ff2502000000cccc1122334455667788",
             "loop_jrcxz": "e302e2fc48ffc1c3cccccccccccc", "short_function": "31c0c3cccccccccccccccccccccccc",
             "rip_store_imm": "c705f8ffffff01000000c3", "vex_rip": "c5fa6f0500000000c3cccccc"}
for placement in range(3):  # byte 0: placement << 4, and 9 for the third
    for name, code in prologues.items():
        write("trampoline_fuzzer", f"{name}_{placement}", bytes([placement << 4 | 9 * (placement == 2)]) + bytes.fromhex(code))
write("trampoline_fuzzer", "explicit_addresses",
      b"\x30" + struct.pack("<QQ", 0xFFFFFFFFFFFFFFF0, 0x10) + bytes.fromhex(prologues["rip_load"]))

for name, ticks, parts in [("plain", b"\x06\x01\x02\x03\x04", [b"explorer.exe", b"S-1-5-21-1-2-3-1001", b"C:\\dst",
                                                               b"C:\\a.txt", b"C:\\b.txt"]),
                           ("escapes", b"\x05\xff\xff\xff\xff", [b"a&b<c>.exe", b"\"'", b"D:\\&amp;",
                                                                 "C:\\\u00e9t\u00e9.txt".encode(), b"x\ty"]),
                           ("folder", b"\x06\0\0\0\x80", [b"p", b"s", b"d", b".", b"/", b"f"])]:
    write("documents_fuzzer", name, ticks + b"\0".join(parts))
