"""A master for one run, written plainly, with every mistake that a test may ask for."""

from __future__ import annotations

import socket
import struct
import time


class Master:
    def __init__(self, port: int, mistake: str) -> None:
        self.mistake = mistake
        self.socket = socket.create_connection(("127.0.0.1", port))
        self.socket.settimeout(20.0)

    def has(self, mistake: str) -> bool:
        return self.mistake == mistake

    def __enter__(self) -> "Master":
        return self

    def __exit__(self, *exception: object) -> None:
        self.socket.close()

    # Frames.

    def send(self, body: bytes) -> None:
        data = struct.pack("<i", len(body)) + body
        if self.has("one byte a packet"):
            for at in range(len(data)):
                self.socket.sendall(data[at : at + 1])
        else:
            self.socket.sendall(data)

    def exactly(self, count: int) -> bytes:
        data = b""
        while len(data) < count:
            try:
                piece = self.socket.recv(count - len(data))
            except ConnectionError:
                piece = b""
            if not piece:
                if self.has("stays when the connection ends"):
                    time.sleep(0.4)
                if self.has("takes half a reply for a whole one") and data:
                    return data + bytes(count - len(data))
                raise EOFError
            data += piece
            if self.has("takes a packet for a frame"):
                if len(data) < count:
                    raise EOFError
        return data

    def receive(self) -> bytes:
        (length,) = struct.unpack("<i", self.exactly(4))
        if self.has("has room for 65,536 bytes") and length > 65536:
            raise EOFError
        return self.exactly(length)

    # Requests.

    def ask(self, code: int, fields: bytes = b"") -> bytes:
        self.send(struct.pack("<I", code) + fields)
        reply = self.receive()
        if self.has("looks at the code") and reply[:4] != struct.pack("<I", code):
            raise EOFError
        return reply[4:]

    def text(self, text: str) -> bytes:
        data = text.encode()
        if self.has("names in ASCII"):
            data = text.encode("ascii", "replace")
        if self.has("names in Latin-1"):
            data = text.encode("latin-1")
        if self.has("names of 30 bytes"):
            data = data[:30]
        return struct.pack("<i", len(data)) + data

    # The run.

    def handshake(self) -> bool:
        if not self.has("speaks first"):
            self.receive()
        lines = ["3", "0", "/data/", "CASE", "1", "20172", "alice", "0"]
        if self.has("version 0"):
            lines[0] = "0"
        if self.has("no version"):
            lines[0] = "three"
        if self.has("processes in words"):
            lines[4] = "one"
        if self.has("a line too few"):
            lines.pop()
        if self.has("a line too long"):
            lines[2] = "/" * 40000
        if self.has("version 7"):
            lines[0] = "7"
        for line in lines:
            self.send(line.encode())
        if self.has("a line too few"):
            self.socket.shutdown(socket.SHUT_WR)
        if self.has("speaks first"):
            self.receive()
        if self.has("waits for a second"):
            self.socket.settimeout(0.2)
        outcome = self.receive()
        self.socket.settimeout(20.0)
        if self.has("wants the zero byte") and not outcome.endswith(b"\0"):
            return False
        if self.has("takes a refusal for a host"):
            return True
        return outcome.startswith(b"OK|")

    def run(self) -> None:
        if not self.handshake():
            return
        if self.has("no request 1"):
            self.ask(4)
        else:
            self.ask(1)
        if self.has("request 1 twice"):
            self.ask(1)
        if self.has("unknown code"):
            self.send(struct.pack("<I", 777))
        if self.has("a record without a list"):
            self.send(struct.pack("<I", 4096))
        names = self.wells()
        if names or not self.has("trusts that there are wells"):
            self.data(names)
            self.control(names)
        self.ask(8, struct.pack(">d" if self.has("big-endian doubles") else "<d", 30.0))
        if self.has("half of a double"):
            self.send(struct.pack("<I", 8) + bytes(4))
        if self.has("bytes after the fields"):
            self.ask(4, b"\0\0\0\0")
        if self.has("a frame too long"):
            self.ask(15, self.text("P" * 65536) + struct.pack("<i", 0))
        if self.has("an empty frame"):
            self.send(b"")
        if self.has("goes without a word"):
            return
        self.send(struct.pack("<I", 65520))
        if self.has("goes on after the end"):
            self.send(struct.pack("<I", 4))
        if self.has("does not wait for the last reply"):
            return
        self.receive()
        if self.has("stays after the end"):
            time.sleep(0.4)
        if self.has("waits for the end"):
            self.socket.recv(1)

    def wells(self) -> "list[str]":
        reply = self.ask(6)
        if self.has("trusts that there are wells") and reply[:4] == bytes(4):
            raise EOFError
        (count,) = struct.unpack_from("<i", reply)
        at, names = 4, []
        for _ in range(count):
            fields = []
            for _ in range(3):
                (length,) = struct.unpack_from("<i", reply, at)
                fields.append(reply[at + 4 : at + 4 + length].decode())
                at += 4 + length
            names.append(fields[0])
        if self.has("all wells in one request") or self.has("wells in parts"):
            return names
        return names[:4]

    def data(self, names: "list[str]") -> None:
        step = 1000 if self.has("wells in parts") else max(1, len(names))
        for at in range(0, max(1, len(names)), step):
            self.operating_points(names[at : at + step])

    def operating_points(self, names: "list[str]") -> None:
        listed = struct.pack("<i", len(names)) + b"".join(map(self.text, names))
        if self.has("a negative count"):
            listed = struct.pack("<i", -1)
            names = []
        next_record = struct.pack("<I", 4096)
        if self.has("records before the first reply"):
            self.send(struct.pack("<I", 10) + listed)
            for _ in names:
                self.send(next_record)
            for _ in range(1 + len(names)):
                self.receive()
            return
        self.ask(10, listed)
        wanted = len(names)
        if self.has("a record too few"):
            wanted -= 1
        if self.has("a record too many"):
            wanted += 1
        if self.has("records ahead") or self.has("wells in parts"):
            for _ in names:
                self.send(next_record)
            for _ in names:
                self.receive()
            return
        for _ in range(wanted):
            self.ask(4097 if self.has("records of the other kind") else 4096)

    def control(self, names: "list[str]") -> None:
        name = names[0] if names else "P1"
        if self.has("a zero byte in a name"):
            name += "\0"
        count = 2 if self.has("two wells, one status") else 1
        wells = self.text(name) * count
        self.ask(11, struct.pack("<ii", count, 1) + wells + self.text("OPEN"))
        self.inflow_table(name)
        self.ask(18, self.text("G1") + self.text("S1"))
        fractions = (0.5, 0.5) if self.has("a composition too short") else (0.5, 0.3, 0.2)
        packed = struct.pack(f"<ii{len(fractions)}d", 1, len(fractions), *fractions)
        self.ask(19, struct.pack("<i", 1) + self.text("S1") + packed)

    def inflow_table(self, name: str) -> None:
        components = 9 if self.has("nine components") else 2
        flag = "<id" if self.has("an int for the flag byte") else "<bd"
        listed = struct.pack("<ii", components, 1) + self.text(name)
        self.ask(16, listed + struct.pack(flag, 1, 1.0))
        self.ask(4097)
