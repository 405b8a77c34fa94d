"""The byte examples of the pages, read by the kit: a second reading of the protocols."""

from __future__ import annotations

import re
import unittest
from typing import Dict, Iterator, List, Tuple

from support import ROOT

from jobmill import controller_link, master_link
from jobmill.controller_link import chunked, decode, encode, take_message, understand
from jobmill.errors import ProtocolError
from jobmill.wire import CLIENT, MASTER, SERVER, SIMULATOR, Decoder


def listing_bytes(line: str) -> bytes:
    """The bytes of a line of a listing: pairs of digits and 'texts'; a byte that depends on the run is 0."""
    found = b""
    for text, pair in re.findall(
        r"'([^']*)'|(?<!\.)\b([0-9a-f]{2})\b|(?<!\.)\.\.(?!\.)", without_remark(line)
    ):
        found += text.encode() if text else bytes.fromhex(pair or "00")
    return found


def without_remark(line: str) -> str:
    return re.sub(r" +#.*", "", line)


def blocks(page: str) -> Iterator[str]:
    text = (ROOT / "docs" / page).read_text(encoding="utf-8")
    yield from re.findall(r"^```\n(.*?)^```", text, re.S | re.M)


def listings() -> Iterator[bytes]:
    """The messages in the listings of the simulator's protocol; an empty line parts two of them."""
    for block in blocks("external-controller-protocol.md"):
        if "→" not in block:
            for part in block.split("\n\n"):
                yield b"".join(map(listing_bytes, part.splitlines()))


def runs(page: str) -> Iterator[Tuple[str, str, bytes]]:
    """Who sends what to whom in the whole runs of a page, where no byte is left out."""
    for block in blocks(page):
        for part in re.split(r"^(?=\w+ → )", block, flags=re.M):
            if "→" in part and not re.search(r"(?<!\.)\.\.\.(?!\.)", without_remark(part)):
                ends, *lines = part.splitlines()
                sender, receiver = re.findall(r"\w+", ends)[:2]
                yield sender, receiver, b"".join(map(listing_bytes, lines))


#: The ends, as jobmill.wire calls them.
NAMES = {"jobmill": "daemon"}


class PagesTest(unittest.TestCase):
    def test_messages_of_the_page_are_read_and_written_again(self) -> None:
        kinds: List[str] = []
        for data in listings():
            if data.endswith((b"hello", b"..")) or not data[1:].startswith(
                (
                    b"SETUP",
                    b"CONTINUE",
                    b"SHUTDOWN",
                    b"QUERY",
                    b"SET",
                    b"REPLY",
                    b"STEP",
                    b"FINISHED",
                    b"READY",
                )
            ):
                continue
            message = decode(data)
            self.assertEqual(encode(message), data)
            self.assertEqual(take_message(bytearray(chunked(data))).body, data)  # type: ignore[union-attr]
            if message[0].name in (
                "SETUP",
                "CONTINUE",
                "CONTINUE_UNTIL",
                "SHUTDOWN",
                "QUERY",
                "SET",
            ):
                if message[1].name != "D":  # The listing of one header of each type is no request.
                    kinds.append(understand(message).kind)
        self.assertEqual(set(kinds), {names[-1] for names in controller_link.REQUESTS})

    def test_whole_runs_of_the_pages_are_read(self) -> None:
        for page in ("master-protocol.md", "external-controller-protocol.md"):
            decoders: Dict[str, Decoder] = {}
            names: List[str] = []
            for sender, receiver, data in runs(page):
                link = SIMULATOR if "simulator" in (sender, receiver) else MASTER
                if (sender, receiver) == ("jobmill", "master") and data.endswith(b"3"):
                    decoders[MASTER] = Decoder(MASTER)
                decoder = decoders.setdefault(link, Decoder(link))
                end = SERVER if sender == "simulator" or receiver == "master" else CLIENT
                for said in decoder.take(end, data):
                    names.append(said.name)
                    with self.subTest(page, said=str(said)):
                        self.assertEqual((said.error, said.end), ("", NAMES.get(sender, sender)))
                self.assertEqual(decoder.end(end), [], (page, data))
            self.assertGreater(len(names), 20)
            self.assertIn("reply to 65520 (shut down)", names)

    def test_titles_and_codes_are_those_of_the_page(self) -> None:
        page = (ROOT / "docs" / "master-protocol.md").read_text(encoding="utf-8")
        table = page[page.index("| Code | Request |") :].split("\n\n")[0]
        rows = dict(re.findall(r"^\| (\d+) \| ([^|]+?) \|", table, re.M))
        for code, request in master_link.REQUESTS.items():
            if code not in (master_link.NEXT_OPERATING_POINT, master_link.NEXT_INFLOW_TABLE):
                self.assertTrue(rows[str(code)].startswith(request.title), rows[str(code)])


class HostileBytesTest(unittest.TestCase):
    def test_every_cut_of_a_message_is_told(self) -> None:
        data = encode(
            controller_link.request("QWELLS", {"QITEMS": ["A"], "WELNAMES": ["P1", "\u00e9"]})
        )
        whole = decode(data)
        for end in range(1, len(data)):
            try:
                self.assertLess(len(decode(data[:end])), len(whole))
            except ProtocolError:
                pass

    def test_counts_beyond_the_bytes_are_told_before_memory_is_taken(self) -> None:
        for kind in (b"DOUB", b"INTE", b"CSTR"):
            with self.assertRaises(ProtocolError):
                decode(b"\1X" + b"\xff" * 8 + kind)
        with self.assertRaises(ProtocolError):
            master_link.unpack_reply(master_link.frame(b"\x0f\0\0\0\xff\xff\xff\x7f")[4:])
        with self.assertRaises(ProtocolError):
            take_message(bytearray(b"\1" + bytes(7) + b"\2" + bytes(7)))

    def test_bytes_that_are_no_text_come_back_as_they_were(self) -> None:
        name = master_link.bytes_text(b"P\xff\xfe1")
        message = [controller_link.texts("WELLNAME", name), controller_link.END]
        self.assertIn(b"P\xff\xfe1", encode(message))
        self.assertEqual(decode(encode(message)), message)

    def test_decoder_takes_any_cut_and_any_bytes(self) -> None:
        frames = b"".join(
            map(master_link.frame, (b"3", b"0", b"/", b"C", b"1", b"20172", b"u", b"0"))
        )
        frames += master_link.pack_request(8, days=1.5) + master_link.frame(b"\x09\0\0\0more")
        whole = Decoder(MASTER).take(CLIENT, frames)
        decoder = Decoder(MASTER)
        pieces = [
            said for i in range(len(frames)) for said in decoder.take(CLIENT, frames[i : i + 1])
        ]
        self.assertEqual(whole, pieces)
        self.assertEqual(dict(whole[8].fields), {"days": 1.5})
        self.assertIn("4 bytes after the last field", whole[9].error)
        spoilt = Decoder(MASTER)
        spoilt.take(SERVER, master_link.frame(b"3") + master_link.frame(b"OK|x"))
        self.assertEqual(spoilt.take(SERVER, master_link.frame(b"\2"))[0].error[:7], "a frame")
        self.assertEqual(spoilt.end(SERVER), [])


if __name__ == "__main__":
    unittest.main()
