#!/usr/bin/env python3
"""Minimal VICI client for the end-to-end tests (run inside a charon's
namespaces, so the default socket is that charon's).

  vici.py get-shared              ids of the shared secrets loaded over VICI
  vici.py count-sas [CONN]        number of IKE_SAs (of connection CONN)
  vici.py list-sas                one line per IKE_SA: name state [vips]
  vici.py child-packets-in CONN   packets received by CONN's CHILD_SAs
  vici.py get-conns               names of the connections loaded over VICI
  vici.py get-authorities         names of the authorities (CAs) loaded over VICI
"""
import socket
import struct
import sys

SOCKET = "/run/charon.vici"
TIMEOUT = 5.0

CMD_REQUEST, CMD_RESPONSE, CMD_UNKNOWN = 0, 1, 2
EVENT_REGISTER, EVENT_UNREGISTER, EVENT_CONFIRM, EVENT_UNKNOWN, EVENT = 3, 4, 5, 6, 7
SECTION_START, SECTION_END, KEY_VALUE, LIST_START, LIST_ITEM, LIST_END = 1, 2, 3, 4, 5, 6


def encode(msg):
    out = b""
    for key, value in msg.items():
        k = key.encode()
        if isinstance(value, dict):
            out += bytes([SECTION_START, len(k)]) + k + encode(value) + bytes([SECTION_END])
        elif isinstance(value, list):
            out += bytes([LIST_START, len(k)]) + k
            for item in value:
                v = item.encode() if isinstance(item, str) else item
                out += bytes([LIST_ITEM]) + struct.pack(">H", len(v)) + v
            out += bytes([LIST_END])
        else:
            v = value.encode() if isinstance(value, str) else value
            out += bytes([KEY_VALUE, len(k)]) + k + struct.pack(">H", len(v)) + v
    return out


def decode(data):
    root = {}
    stack = [root]
    current_list = None
    i = 0
    while i < len(data):
        t = data[i]
        i += 1
        if t in (SECTION_START, KEY_VALUE, LIST_START):
            n = data[i]
            name = data[i + 1:i + 1 + n].decode(errors="replace")
            i += 1 + n
        if t == SECTION_START:
            section = {}
            stack[-1][name] = section
            stack.append(section)
        elif t == SECTION_END:
            stack.pop()
        elif t == KEY_VALUE:
            (n,) = struct.unpack(">H", data[i:i + 2])
            stack[-1][name] = data[i + 2:i + 2 + n].decode(errors="replace")
            i += 2 + n
        elif t == LIST_START:
            current_list = []
            stack[-1][name] = current_list
        elif t == LIST_ITEM:
            (n,) = struct.unpack(">H", data[i:i + 2])
            current_list.append(data[i + 2:i + 2 + n].decode(errors="replace"))
            i += 2 + n
        elif t == LIST_END:
            current_list = None
        else:
            raise ValueError("bad element type %d" % t)
    return root


class Session:
    def __init__(self, path=SOCKET):
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.sock.settimeout(TIMEOUT)
        self.sock.connect(path)

    def _send(self, packet):
        self.sock.sendall(struct.pack(">I", len(packet)) + packet)

    def _recv_exact(self, n):
        buf = b""
        while len(buf) < n:
            chunk = self.sock.recv(n - len(buf))
            if not chunk:
                raise EOFError("charon closed the VICI connection")
            buf += chunk
        return buf

    def _recv(self):
        (n,) = struct.unpack(">I", self._recv_exact(4))
        return self._recv_exact(n)

    def _named(self, ptype, name, payload=b""):
        n = name.encode()
        self._send(bytes([ptype, len(n)]) + n + payload)

    def register(self, event):
        self._named(EVENT_REGISTER, event)
        while True:
            p = self._recv()
            if p[0] == EVENT_CONFIRM:
                return
            if p[0] == EVENT_UNKNOWN:
                raise RuntimeError("unknown event " + event)

    def request(self, command, msg=None, stream=None):
        """Returns (response, [stream events])."""
        if stream:
            self.register(stream)
        self._named(CMD_REQUEST, command, encode(msg or {}))
        events = []
        while True:
            p = self._recv()
            if p[0] == CMD_RESPONSE:
                return decode(p[1:]), events
            if p[0] == CMD_UNKNOWN:
                raise RuntimeError("unknown command " + command)
            if p[0] == EVENT:
                n = p[1]
                events.append((p[2:2 + n].decode(), decode(p[2 + n:])))


def list_sas(session, conn=None):
    # no "noblock": an IKE_SA busy in an exchange must still be counted
    msg = {}
    if conn:
        msg["ike"] = conn
    _, events = session.request("list-sas", msg, stream="list-sa")
    sas = []
    for _, body in events:
        for name, sa in body.items():
            sas.append((name, sa))
    return sas


def main(argv):
    if len(argv) < 2:
        print(__doc__.strip(), file=sys.stderr)
        return 2
    s = Session()
    cmd = argv[1]
    if cmd == "get-shared":
        resp, _ = s.request("get-shared")
        for key in resp.get("keys", []):
            print(key)
    elif cmd == "get-conns":
        resp, _ = s.request("get-conns")
        for name in resp.get("conns", []):
            print(name)
    elif cmd == "get-authorities":
        resp, _ = s.request("get-authorities")
        for name in resp.get("authorities", []):
            print(name)
    elif cmd == "count-sas":
        print(len(list_sas(s, argv[2] if len(argv) > 2 else None)))
    elif cmd == "list-sas":
        for name, sa in list_sas(s):
            print(name, sa.get("state", "?"), " ".join(sa.get("local-vips", [])))
    elif cmd == "child-packets-in":
        total = 0
        for _, sa in list_sas(s, argv[2]):
            for child in sa.get("child-sas", {}).values():
                total += int(child.get("packets-in", "0"))
        print(total)
    else:
        print("unknown command " + cmd, file=sys.stderr)
        return 2
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
