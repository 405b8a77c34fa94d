"""Captures made from bytes: what two ends say to each other, as segments of TCP, for tshark."""

import os
import struct
import subprocess
import xml.etree.ElementTree as ElementTree

LUA = os.path.normpath(
    os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../deploy/wireshark/jobmill.lua")
)
MASTER_PORT, SIMULATOR_PORT = 5000, 9001
PORTS = {"master": MASTER_PORT, "simulator": SIMULATOR_PORT}
CLIENT, SERVER = "client", "server"
SYN, FIN_ACK, ACK, PSH_ACK = 0x02, 0x11, 0x10, 0x18
_ADDRESSES = {CLIENT: b"\x0a\0\0\1", SERVER: b"\x0a\0\0\2"}


class Capture:
    """Frames in the order of the file. A microsecond passes before each, unless a time is given."""

    def __init__(self):
        self._frames = [struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 1 << 18, 1)]
        self.now = 1_700_000_000_000_000  # microseconds

    def frame(self, sender, ports, sequence, acknowledged, flags, data=b"", captured=None):
        self.now += 1
        receiver = SERVER if sender == CLIENT else CLIENT
        source, target = ports if sender == CLIENT else reversed(ports)
        tcp = (
            struct.pack(
                ">HHIIBBHHH",
                source,
                target,
                sequence % 2**32,
                acknowledged % 2**32,
                0x50,
                flags,
                65535,
                0,
                0,
            )
            + data
        )
        ip = (
            struct.pack(">BBHHHBBH", 0x45, 0, 20 + len(tcp), 0, 0, 64, 6, 0)
            + _ADDRESSES[sender]
            + _ADDRESSES[receiver]
        )
        whole = bytes(12) + b"\x08\x00" + ip + tcp
        kept = whole if captured is None else whole[:captured]
        self._frames.append(
            struct.pack("<IIII", *divmod(self.now, 10**6), len(kept), len(whole)) + kept
        )

    def write(self, name):
        with open(name, "wb") as file:
            file.write(b"".join(self._frames))


class Connection:
    """A connection in a capture. Its ends say what they are told to, in segments of 1,400 bytes."""

    SEGMENT = 1400

    def __init__(self, capture, client_port, server_port, begins=True):
        self.capture = capture
        self.ports = (client_port, server_port)
        # Both wrap within the first messages.
        self.sent = {CLIENT: 2**32 - 40, SERVER: 2**32 - 400}
        if begins:
            self._frame(CLIENT, SYN)
            self.sent[CLIENT] += 1
            self._frame(SERVER, SYN | ACK)
            self.sent[SERVER] += 1
            self._frame(CLIENT, ACK)

    def _frame(self, sender, flags, data=b"", sequence=None, captured=None):
        receiver = SERVER if sender == CLIENT else CLIENT
        sequence = self.sent[sender] if sequence is None else sequence
        acknowledged = self.sent[receiver] if flags & ACK else 0
        self.capture.frame(sender, self.ports, sequence, acknowledged, flags, data, captured)

    def segments(self, data, size=None):
        size = size or self.SEGMENT
        return [data[at : at + size] for at in range(0, len(data), size)]

    def say(self, sender, data, size=None):
        for piece in self.segments(data, size):
            self._frame(sender, PSH_ACK, piece)
            self.sent[sender] += len(piece)

    def say_in_order(self, sender, pieces, order):
        """Segments in another order than that of the stream; some may come twice, or never."""
        starts = [self.sent[sender] + sum(map(len, pieces[:i])) for i in range(len(pieces))]
        for i in order:
            self._frame(sender, PSH_ACK, pieces[i], starts[i])
        self.sent[sender] += sum(map(len, pieces))

    def say_cut_by_the_capture(self, sender, data, kept):
        """A segment of which only so many bytes were captured."""
        self._frame(sender, PSH_ACK, data, captured=54 + kept)
        self.sent[sender] += len(data)

    def lose(self, sender, size):
        """Bytes that were sent, and were not captured."""
        self.sent[sender] += size

    def end(self):
        for sender in (CLIENT, SERVER):
            self._frame(sender, FIN_ACK)
            self.sent[sender] += 1


def tshark(capture, *arguments, seconds=60):
    """What tshark says of a capture. Raises for failures in Lua, which tshark's status hides."""
    done = subprocess.run(
        ["tshark", "-n", "-r", capture, "-X", "lua_script:" + LUA, *arguments],
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        timeout=seconds,
        check=False,
    )
    said = done.stdout.decode("utf-8", "replace")
    errors = done.stderr.decode("utf-8", "replace")
    for text in ("Lua Error", "Lua error", ".lua:", "Dissector bug", "Malformed Packet"):
        if text in said or text in errors:
            at = (errors + said).index(text)
            raise AssertionError(
                f"tshark {' '.join(arguments)}: {(errors + said)[max(0, at - 300):at + 500]}"
            )
    if done.returncode != 0:
        raise AssertionError(f"tshark {' '.join(arguments)}: status {done.returncode}: {errors}")
    return said


class Message:
    """A message as the dissectors show it: its fields in their order, and the complaints."""

    def __init__(self, link, frame, stream, sender):
        self.link, self.frame, self.stream, self.sender = link, frame, stream, sender
        self.fields = []  # (name without the protocol's, shown value, bytes)
        self.complaints = []  # names of expert information
        self.title = ""

    def values(self, name):
        return [value for field, value, _ in self.fields if field == name]

    def value(self, name):
        found = self.values(name)
        return found[0] if found else None


def messages(capture, *arguments):
    """All messages that the dissectors find in a capture."""
    found = []
    text = tshark(
        capture,
        "-Y",
        "jobmill || jobmill_sim",
        "-T",
        "pdml",
        "-J",
        "frame tcp jobmill jobmill_sim",
        *arguments,
    )
    # Packet by packet, since a capture may be large.
    for part in text.split("<packet>")[1:]:
        found += _messages_of(
            ElementTree.fromstring("<packet>" + part.partition("</packet>")[0] + "</packet>")
        )
    return found


def _messages_of(packet):
    frame = stream = source = None
    found = []
    for protocol in packet:
        name = protocol.get("name")
        for field in protocol.iter("field"):
            known = field.get("name")
            if known == "frame.number":
                frame = int(field.get("show"))
            elif known == "tcp.stream":
                stream = int(field.get("show"))
            elif known == "tcp.srcport":
                source = int(field.get("show"))
        if name in ("jobmill", "jobmill_sim"):
            link = "master" if name == "jobmill" else "simulator"
            message = Message(link, frame, stream, SERVER if source in PORTS.values() else CLIENT)
            message.title = protocol.get("showname")
            _collect(protocol, message)
            found.append(message)
    return found


def _collect(node, message):
    for field in node:
        name = field.get("name")
        if name.startswith("_ws.expert"):
            for inner in field:
                known = inner.get("name")
                if known.startswith("jobmill"):
                    message.complaints.append(known.partition(".")[2])
            continue
        if name.startswith("jobmill"):
            message.fields.append(
                (name.partition(".")[2], field.get("show"), bytes.fromhex(field.get("value") or ""))
            )
        _collect(field, message)
