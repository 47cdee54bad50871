#!/usr/bin/env python3
"""Writes the seed corpora under fuzz/corpus/<target>/. Each seed is a well-formed input
of its target's layout (see the target's source); the fuzzers mutate from there."""
import os
import struct
import sys

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "corpus")


def i32(v):
    return struct.pack("<i", v)


def u32(v):
    return struct.pack("<I", v & 0xFFFFFFFF)


def u16(v):
    return struct.pack("<H", v)


def s16(text):
    """A parcel String16: length, UTF-16 text, NUL, padded to 4."""
    if text is None:
        return i32(-1)
    raw = text.encode("utf-16-le") + b"\0\0"
    raw += b"\0" * (-len(raw) % 4)
    return i32(len(text)) + raw


DESCRIPTOR = "com.vantor.quartzmind.integration.adapter.qmed.IQmedBinder"


def token(desc=DESCRIPTOR):
    return i32(0) + i32(-1) + u32(0x53595354) + s16(desc)


def write(target, name, data):
    d = os.path.join(ROOT, target)
    os.makedirs(d, exist_ok=True)
    with open(os.path.join(d, name), "wb") as f:
        f.write(data)


# ---- proc: type, ids, uid, name, cmdline length, owners, debug, then nodes.
def proc_seed(type_, ids, uid, name, cmdlen, owners, nodes, debug=0):
    out = bytes([type_, 255 if ids is None else len(ids)])
    for v in ids or []:
        out += i32(v)
    out += i32(uid) + bytes([len(name)]) + name.encode() + bytes([cmdlen, owners, debug])
    for (d, f), content in nodes.items():
        out += bytes([d * 3 + f]) + u16(len(content)) + content
    return out


def stat_line(pid, name, utime, stime):
    fields = [str(pid), "(%s)" % name, "S", "1", str(pid), str(pid), "0", "-1", "4194560",
              "100", "0", "0", "0", str(utime), str(stime), "0", "0", "20", "0", "1", "0", "10"]
    return (" ".join(fields) + "\n").encode()


def status(name, uid):
    return ("Name:\t%s\nUmask:\t0022\nState:\tS (sleeping)\nTgid:\t1\nPid:\t1\n"
            "Uid:\t%d\t%d\t%d\t%d\n" % (name, uid, uid, uid, uid)).encode()


def proc_seeds():
    tree = {(0, 0): stat_line(1, "init", 5, 7), (0, 1): status("init", 0),
            (0, 2): b"/sbin/init\0splash\0",
            (1, 0): stat_line(2, "system_server", 300, 40), (1, 1): status("system_server", 1000),
            (1, 2): b"system_server\0",
            (2, 0): stat_line(3, "a b) c", 1, 1), (2, 1): status("a b) c", 10057),
            (2, 2): b"com.example.app:remote\0"}
    write("proc", "all", proc_seed(0, [], -1, "init", 64, 0b00000100, tree))
    write("proc", "by_pid", proc_seed(2, [1, 2, 3, 40000], 1000, "system_server", 16, 0b010100, tree))
    write("proc", "by_uid", proc_seed(1, [0, 1000], 1000, "a b) c", 1, 0b100100, tree, 1))
    write("proc", "every_id", proc_seed(1, None, 0, "", 0, 0xFF, tree))
    odd = {(0, 0): b"1 (no-close S 1 1", (1, 0): b"2", (2, 0): b"",
           (3, 0): stat_line(40000, "x" * 300, 9, 9), (4, 0): stat_line(5, ")", 1, 2),
           (0, 1): b"Name:", (1, 1): b"\n\n\n", (3, 2): b"\xff" * 100}
    write("proc", "malformed", proc_seed(0, [], -1, "x" * 15, 64, 0x55, odd))


# ---- sockdiag: mode, uid, pid, then datagrams for the dump or destroy socket.
NLMSG_ERROR, NLMSG_DONE, SOCK_DIAG_BY_FAMILY = 2, 3, 20


def nlmsg(type_, payload, flags=2):
    return u32(16 + len(payload)) + u16(type_) + u16(flags) + u32(1) + u32(0) + payload + \
        b"\0" * (-len(payload) % 4)


def diag_msg(family, state, uid, src, dst, sport=40000, dport=443):
    sock_id = struct.pack(">HH", sport, dport) + src.ljust(16, b"\0") + dst.ljust(16, b"\0") + \
        u32(0) + u32(1) + u32(2)
    return bytes([family, state, 0, 0]) + sock_id + u32(0) + u32(0) + u32(0) + u32(uid) + \
        u32(12345)


def rtattr(type_, payload):
    return u16(4 + len(payload)) + u16(type_) + payload + b"\0" * (-len(payload) % 4)


def done():
    return nlmsg(NLMSG_DONE, i32(0))


def err(code):
    return nlmsg(NLMSG_ERROR, i32(code) + b"\0" * 16)


def sockdiag_seed(mode, uid, pid, datagrams):
    out = bytes([mode]) + i32(uid) + i32(pid)
    for to_destroy, d in datagrams:
        out += bytes([to_destroy]) + u16(len(d)) + d
    return out


def sockdiag_seeds():
    v4 = diag_msg(2, 1, 10001, bytes([10, 0, 0, 1]), bytes([10, 0, 0, 2]))
    v4lo = diag_msg(2, 1, 10001, bytes([127, 0, 0, 1]), bytes([127, 0, 0, 1]))
    v6 = diag_msg(10, 8, 10001, bytes(15) + b"\x01", bytes(10) + b"\xff\xff" + bytes([10, 0, 0, 7]))
    owner = rtattr(1, b"\0" * 8) + rtattr(19, u32(4242))
    write("sockdiag", "uid", sockdiag_seed(0, 10001, 0, [(0, nlmsg(SOCK_DIAG_BY_FAMILY, v4) +
                                                             nlmsg(SOCK_DIAG_BY_FAMILY, v4lo) + done()),
                                                         (0, nlmsg(SOCK_DIAG_BY_FAMILY, v6) + done())]))
    write("sockdiag", "pid", sockdiag_seed(3, 10001, 4242, [
        (0, nlmsg(SOCK_DIAG_BY_FAMILY, v4 + owner)), (0, done()),
        (0, nlmsg(SOCK_DIAG_BY_FAMILY, v6 + owner) + done())]))
    write("sockdiag", "dump_refused", sockdiag_seed(0, 10001, 0, [(0, err(-1))]))
    write("sockdiag", "destroy_refused", sockdiag_seed(1, 10001, 4242, [
        (1, err(-13)), (0, nlmsg(SOCK_DIAG_BY_FAMILY, v4 + owner) + done()), (0, done())]))
    write("sockdiag", "short_records", sockdiag_seed(1, 10001, 4242, [
        (0, nlmsg(SOCK_DIAG_BY_FAMILY, v4[:40]) + u32(16) + bytes(12)),
        (0, nlmsg(SOCK_DIAG_BY_FAMILY, v4 + rtattr(19, b"\x01"))),
        (0, u32(9999) + bytes(12))]))


# ---- hub: flags, then datagrams (netlink header, TLV header, payload).
def tlv(tag, src, dst, payload, claimed=None):
    return i32(tag) + i32(src) + i32(dst) + i32(len(payload) if claimed is None else claimed) + \
        payload


def nl(body, length=None):
    return u32(16 + len(body) if length is None else length) + bytes(12) + body


def kstate(kind, text):
    return i32(kind) + bytes(12) + text.encode() + b"\0"


def hub_seed(flags, datagrams):
    out = bytes([flags])
    for d in datagrams:
        out += u16(len(d)) + d
    return out


def hub_seeds():
    reg = nl(tlv(1, 4, 1, b""))
    write("hub", "register_and_events", hub_seed(0, [
        reg,
        nl(tlv(4, 4, 8, kstate(16, "[TPID 1234 CALLED][PID -1]"))),
        nl(tlv(4, 4, 8, kstate(16, "[TPID 1234 CALLED][PID 77]"))),
        nl(tlv(4, 4, 8, kstate(8, "[PID 55 KILLED][SIG 0]"))),
        nl(tlv(4, 4, 8, kstate(1, "screen on")))]))
    write("hub", "forward", hub_seed(0, [reg, nl(tlv(5, 1, 4, bytes([6, 0]) + b"123"))]))
    write("hub", "claims_more", hub_seed(0x80, [
        nl(tlv(4, 4, 8, kstate(16, "[TPID 1"), claimed=2032)),
        nl(tlv(4, 4, 8, b"", claimed=-1)),
        nl(tlv(4, 4, 8, b"\x10", claimed=1))]))
    write("hub", "bad_framing", hub_seed(1, [
        b"", b"\x01\x02", nl(b"", length=8), nl(tlv(4, 4, 8, kstate(8, "x")), length=4000),
        nl(tlv(1, 1, 0, b"")), nl(tlv(4, 4, 8, kstate(8, "[PID 5 KILLED][SIG 0]")))]))


# ---- parcel: op count, ops, fd count, then the bytes.
WIRE_MAGIC = 0x31574251


def wire(kind, code, data, objects, fd_count):
    tail = b""
    for offset, type_, id_, name in objects:
        nb = name.encode()
        tail += u32(offset) + u32(type_) + struct.pack("<Q", id_) + u32(len(nb)) + u32(0) + \
            nb + b"\0" * (-len(nb) % 4)
    hdr = u32(WIRE_MAGIC) + u32(kind) + struct.pack("<Q", 0) + u32(code) + u32(0) + i32(0) + \
        u32(len(data)) + u32(len(objects)) + u32(fd_count) + u32(len(tail)) + u32(0)
    return hdr + data + tail


def parcel_seed(ops, fd_count, data):
    return bytes([len(ops)]) + bytes(ops) + bytes([fd_count]) + data


def parcel_seeds():
    body = token() + i32(3) + i32(2) + i32(100) + i32(200) + s16("name") + s16(None)
    ops_token = [21, 0, 0, 0, 0, 12, 12]
    write("parcel", "raw_token", parcel_seed(ops_token, 0, body))
    every = list(range(26)) * 2
    write("parcel", "raw_every_read", parcel_seed(every, 0, body + b"abc\0" + bytes(40)))
    slot = bytes(24)
    write("parcel", "wire_fd", parcel_seed([17, 0, 17], 1, wire(1, 3, slot + i32(7),
                                                                 [(0, 2, 0, "")], 1)))
    write("parcel", "wire_binder", parcel_seed([14, 0, 15], 0, wire(
        1, 1, slot + i32(5), [(0, 1, 5, "qf/proc/4242.abcdef")], 0)))
    write("parcel", "wire_reply", parcel_seed([16, 0, 12], 2, wire(
        2, 0, i32(-3) + s16("boom") + i32(0), [], 2)))


# ---- service: code selector, uid selector, flags, then the request after the token.
def svc(code, uid_sel, flags, body=b"", raw_code=None, raw_uid=None):
    out = bytes([code, uid_sel, flags])
    if raw_code is not None:
        out += u32(raw_code)
    if raw_uid is not None:
        out += u32(raw_uid)
    return out + body


def i64(v):
    return struct.pack("<q", v)


def service_seeds():
    T = 1  # flag: the harness writes the interface token
    L = 2  # flag: the harness writes a listener binder after it
    seeds = {
        "register": svc(1, 1, T | L, i32(0x7)),
        "unregister": svc(2, 1, T | L),
        "freeze": svc(3, 1, T, i32(1) + i32(2) + i32(100) + i32(200)),
        "freeze_201": svc(3, 0, T, i32(1) + i32(201)),
        "mask": svc(4, 1, T, i32(3)),
        "sync": svc(5, 1, T, i32(1)),
        "netpacket": svc(6, 1, T),
        "utime": svc(8, 1, T, i32(1)),
        "cputime_all": svc(9, 1, T, i32(0) + i32(1) + i32(0)),
        "cputime_pids": svc(9, 1, T, i32(2) + i32(2) + i32(1) + i32(2)),
        "cmdline": svc(10, 1, T, i32(1)),
        "pid_by_name": svc(11, 1, T, s16("init") + i32(0)),
        "kill": svc(12, 1, T, i32(3) + i32(123) + i32(-1) + i32(456)),
        "wakelock": svc(13, 1, T, i32(1) + s16("wl") + i32(5)),
        "sockets_uid": svc(14, 1, T, i32(10001) + i32(0)),
        "sockets_pid": svc(14, 1, T, i32(10001) + i32(4242)),
        "watchdog": svc(15, 1, T, i32(1) + i64((1 << 32) + 5) + i64(20) + s16("x")),
        "write_node": svc(16, 1, T, s16("/sys/x") + s16("42\n")),
        "spear": svc(17, 1, T, i32(1234) + i32(30) + i32(0) + i32(1)),
        "pause": svc(18, 1, T, i32(1234) + i32(5)),
        "stop": svc(19, 1, T, i32(1234)),
        "stop_all": svc(20, 1, T),
        "change": svc(21, 1, T, i32(1234) + i32(50)),
        "read_node": svc(22, 1, T, s16("/sys/y") + i32(-9)),
        "shell_freeze": svc(3, 2, T, i32(1) + i32(1) + i32(5)),
        "app_uid": svc(12, 5, T, i32(1) + i32(5), raw_uid=10123),
        "no_token": svc(3, 1, 0, i32(1) + i32(1) + i32(5)),
        "interface": svc(24, 1, 0),
        "dump": svc(25, 2, 0, i32(0) + s16("debug")),
        "dump_fd": svc(25, 0, 16, i32(2) + s16("-a") + s16("x")),
        "register_dump": svc(1, 1, T | L, i32(0x20000001)),
        "ping": svc(26, 3, 0),
        "unknown": svc(200, 1, T, raw_code=0x00ffffff),
        "debug_on": svc(9, 0, T | 4, i32(1) + i32(200) + bytes(800)),
    }
    for name, data in seeds.items():
        write("service", name, data)


if __name__ == "__main__":
    proc_seeds()
    sockdiag_seeds()
    hub_seeds()
    parcel_seeds()
    service_seeds()
    sys.exit(0)
