#!/usr/bin/env python3
"""Writes the seed inputs of the fuzz targets (kept small: a few hundred bytes each).
Run from this folder; the files are committed, so this only documents how they were made."""
import struct

RESP = b"<FILECOPY_SECRETAUDIT_RESPONSE>"


def header(length, tag=RESP):
    return tag.ljust(32, b"\0") + struct.pack("<i", length)


def frame(doc, tag=RESP):
    body = doc + b"\0"
    return header(len(body), tag) + body


def datagrams(*parts, failing_ack=0xFF):
    out = bytes([failing_ack])
    for p in parts:
        out += struct.pack("<H", len(p)) + p
    return out


def write(folder, name, data):
    with open(f"{folder}/{name}", "wb") as f:
        f.write(data)


verdict = (b'<SecretCheckResult encryptedpwd="pw" action="1"><SecretFile path="C:\\a.txt"/>'
           b'<EncryptedFile path="C:\\b.txt"/><SecretFile path=""/></SecretCheckResult>')
whole = frame(verdict)
F = "frame_response_fuzzer"
write(F, "single", datagrams(whole))
write(F, "empty_answer", datagrams(header(2) + b"\0\0"))
write(F, "three_chunks", datagrams(whole[:40], whole[40:90], whole[90:]))
write(F, "ack_fails", datagrams(whole[:40], whole[40:], failing_ack=0))
write(F, "receive_fails", datagrams(whole[:40]) + b"\xff\xff")
write(F, "wrong_tag", datagrams(frame(verdict, b"<FILECOPY_SECRETAUDIT_REQUEST>")))
write(F, "negative_length", datagrams(header(-5) + b"x"))
write(F, "longer_than_announced", datagrams(header(4) + b"<a/>\0<SecretCheckResult/>"))
write(F, "entities", datagrams(frame(b'<SecretCheckResult action="-7"><EncryptedFile path="&lt;&#x41;&amp;"/>'
                                     b'</SecretCheckResult>')))

T = "trampoline_fuzzer"
prologues = {
    "frame_setup": bytes.fromhex("48895c2408574883ec20488bf9"),
    "rip_load": bytes.fromhex("488b05f0ffffff4885c0740590c3"),
    "lea_rip": bytes.fromhex("488d0d10000000e800000000c3"),
    "call_first": bytes.fromhex("e8100000004883c428c3cccccccccc"),
    "jcc_short": bytes.fromhex("85c974064889c8c3909031c0c3"),
    "jmp_indirect": bytes.fromhex("ff2502000000cccc1122334455667788"),
    "loop_jrcxz": bytes.fromhex("e302e2fc48ffc1c3cccccccccccc"),
    "short_function": bytes.fromhex("31c0c3cccccccccccccccccccccccc"),
    "rip_store_imm": bytes.fromhex("c705f8ffffff01000000c3"),
    "vex_rip": bytes.fromhex("c5fa6f0500000000c3cccccc"),
}
for placement in range(3):
    for name, code in prologues.items():
        write(T, f"{name}_{placement}", bytes([placement << 4 | 9 * (placement == 2)]) + code)
write(T, "explicit_addresses", bytes([0x30]) + struct.pack("<QQ", 0xFFFFFFFFFFFFFFF0, 0x10) +
      prologues["rip_load"])

D = "documents_fuzzer"
write(D, "plain", b"\x06\x01\x02\x03\x04" + b"\0".join([b"explorer.exe", b"S-1-5-21-1-2-3-1001", b"C:\\dst",
                                                       b"C:\\a.txt", b"C:\\b.txt"]))
write(D, "escapes", b"\x05\xff\xff\xff\xff" + b"\0".join([b"a&b<c>.exe", b"\"'", b"D:\\&amp;",
                                                        "C:\\\u00e9t\u00e9.txt".encode(), b"x\ty"]))
write(D, "folder", b"\x06\0\0\0\x80" + b"\0".join([b"p", b"s", b"d", b".", b"/", b"f"]))
