"""What `jobmill.check daemon` is worth: the real daemon, and the same spoiled by proxies on both links."""

from __future__ import annotations

import contextlib
import struct
import unittest
from concurrent.futures import ThreadPoolExecutor
from typing import Any, AsyncIterator, Callable, Dict, Iterator, List, Optional, Tuple, Type

from support import PLAYED, RealDaemon, SOON, STAND_IN, free_ports

from jobmill import controller_link
from jobmill.check.daemon import Check
from jobmill.check.report import FAILED, PASSED, Report
from jobmill.controller_link import Header, Message, chunked, encode
from jobmill.master_link import Handshake, code_of, frame, pack_reply, unpack_reply
from jobmill.wire import CLIENT, MASTER, SERVER, SIMULATOR, Splitter
from jobmill.wire.proxy import Background, Proxy

#: Changes one message of one end: its bytes with the lengths, and its number from 0.
Change = Callable[[bytes, int], bytes]


class ChangingTap:
    def __init__(self, link: str, change: Optional[Change], packet: int = 0) -> None:
        self._splitter = Splitter(link)
        self._change = change
        self._packet = packet
        self._number = 0

    async def change(self, data: bytes) -> AsyncIterator[bytes]:
        for message in self._splitter.take(data) if self._change else [data]:
            changed = self._change(message, self._number) if self._change else message
            self._number += 1
            step = self._packet or max(1, len(changed))
            for at in range(0, len(changed), step):
                yield changed[at : at + step]
        if self._splitter.error:
            yield bytes(self._splitter.rest)

    def closed(self) -> None:
        pass


class Variant:
    """A daemon that is broken in one place."""

    def __init__(
        self,
        rule: str,
        replies: Optional[Change] = None,
        requests: Optional[Change] = None,
        messages: Optional[Change] = None,
        packet: int = 0,
    ) -> None:
        self.rule = rule
        self.replies, self.requests, self.messages = replies, requests, messages
        self.packet = packet

    def masters(self, port: int) -> Proxy:
        ways = {CLIENT: self.requests, SERVER: self.replies}
        make = lambda _, sender: ChangingTap(MASTER, ways[sender], self.packet)  # noqa: E731
        return Proxy("127.0.0.1", port, make)

    def simulators(self, port: int) -> Proxy:
        ways = {CLIENT: self.messages, SERVER: None}
        make = lambda _, sender: ChangingTap(SIMULATOR, ways[sender], self.packet)  # noqa: E731
        return Proxy("127.0.0.1", port, make)


def body_of(code: int, change: Callable[[bytes], bytes]) -> Change:
    """Changes the body of the replies to one request."""

    def changed(message: bytes, number: int) -> bytes:
        body = message[4:]
        return frame(change(body)) if number > 1 and code_of(body) == code else message

    return changed


def value(code: int, change: Callable[[Dict[str, Any]], Dict[str, Any]]) -> Change:
    """Changes the values of the replies to one request."""
    return body_of(code, lambda body: pack_reply(code, **change(unpack_reply(body)))[4:])


def put(code: int, **values: Any) -> Change:
    return value(code, lambda found: {**found, **values})


def exchanged(code: int, one: str, other: str) -> Change:
    return value(code, lambda found: {**found, one: found[other], other: found[one]})


def line(wanted: int, change: Callable[[bytes], bytes]) -> Change:
    return lambda message, number: change(message) if number == wanted else message


def said(kind: str, change: Callable[[Message], Message]) -> Change:
    """Changes the messages of one kind that the daemon sends to a simulator."""

    def changed(message: bytes, number: int) -> bytes:
        arrived = controller_link.take_message(bytearray(message))
        assert arrived is not None
        headers = controller_link.decode(arrived.body)
        if kind in (headers[0].name, headers[1].name):
            return chunked(encode(change(headers)))
        return message

    return changed


def data(name: str, change: Callable[[Any], Any]) -> Callable[[Message], Message]:
    return lambda message: [
        h._replace(data=change(h.data)) if h.name == name else h for h in message
    ]


def in_small_chunks(message: bytes, number: int) -> bytes:
    arrived = controller_link.take_message(bytearray(message))
    assert arrived is not None
    return chunked(arrived.body, 1000)


def unknown_is_time(message: bytes, number: int) -> bytes:
    return message.replace(struct.pack("<I", 777), struct.pack("<I", 9))


def without(code: int) -> Change:
    """Swallows the replies to one request."""

    def changed(message: bytes, number: int) -> bytes:
        return b"" if number > 1 and code_of(message[4:]) == code else message

    return changed


def single(number: float) -> float:
    return float(struct.unpack("<f", struct.pack("<f", number))[0])


BROKEN: Dict[str, Variant] = {
    "another version of the protocol": Variant("D01", line(0, lambda _: frame(b"4"))),
    "a word during the launch": Variant("D02", line(0, lambda m: m + frame(b"wait"))),
    "two zero bytes after the host": Variant("D03", line(1, lambda m: frame(m[4:] + b"\0"))),
    "acknowledges with 1": Variant("D06", body_of(4, lambda body: body[:-4] + b"\1\0\0\0")),
    "no acknowledgement": Variant("D06", body_of(17, lambda body: body[:-4])),
    "another code": Variant("D06", body_of(3, lambda body: b"\4" + body[1:])),
    "answers what nobody knows": Variant("D07", requests=unknown_is_time),
    "no answer to the last request": Variant("D13", without(65520)),
    "month and day": Variant("D15", exchanged(2, "day", "month")),
    "always metric": Variant("D16", put(3, metric=True)),
    "time in whole days": Variant("D17", value(4, lambda v: {"days": float(int(v["days"]))})),
    "never compositional": Variant("D18", put(5, compositional=False)),
    "status and type": Variant(
        "D19", value(6, lambda v: {**v, "wells": [(a, c, b) for a, b, c in v["wells"]]})
    ),
    "at most 4,000 wells": Variant(
        "D20",
        value(6, lambda v: {"n": min(v["n"], 4000), "wells": v["wells"][:4000]}),
    ),
    "never ends": Variant("D21", put(9, ended=False)),
    "water and gas": Variant("D22", exchanged(4096, "gas_rate", "water_rate")),
    "OMEGAA and OMEGAB": Variant("D26", exchanged(14, "omega_a", "omega_b")),
    "variables backwards": Variant("D27", value(15, lambda v: {"values": v["values"][::-1]})),
    "nine points": Variant("D28", value(4097, lambda v: {**v, "pressure": v["pressure"][:9]})),
    "no compositions": Variant("D29", value(4097, lambda v: {**v, "compositions": ()})),
    "whole versions": Variant("D31", value(17, lambda v: {"version": float(int(v["version"]))})),
    "accepts every source": Variant("D32", put(18, accepted=1)),
    "starts in the year 0": Variant("D33", put(20, year=0)),
    "chunks of 1,000 bytes": Variant("D36", messages=in_small_chunks),
    "no END": Variant("D37", messages=said("QRESVR_STR", lambda m: m[:-1])),
    "another version of the set-up": Variant(
        "D38", messages=said("SETUP", data("VERSION", lambda _: ("V1",)))
    ),
    "goes until for a step": Variant(
        "D40",
        messages=said(
            "CONTINUE",
            lambda m: [Header("CONTINUE_UNTIL"), controller_link.numbers("TIME", 0.0), m[-1]],
        ),
    ),
    "times in single precision": Variant(
        "D41", messages=said("CONTINUE_UNTIL", data("TIME", lambda t: (single(t[0]),)))
    ),
    "goes on instead of ending": Variant(
        "D42", messages=said("SHUTDOWN", lambda m: [Header("CONTINUE"), m[-1]])
    ),
    "statuses backwards": Variant(
        "D44", messages=said("SETWSTATUS", data("VALUES", lambda v: v[::-1]))
    ),
    "uptimes in single precision": Variant(
        "D45", messages=said("SETWELLS", data("VALUES", lambda v: tuple(map(single, v))))
    ),
    "limits under other names": Variant(
        "D46", messages=said("SETWCONSTRAINTS", data("ITEMS", lambda v: v[::-1]))
    ),
    "fractions backwards": Variant(
        "D47", messages=said("SETWSTRE", data("STCMPVALUES", lambda v: v[::-1]))
    ),
    "water instead of gas": Variant(
        "D48", messages=said("CREATE_FLDSRCEXT", data("STPHASE", lambda _: ("WATER",)))
    ),
}


class ShortCheck(Check):
    """The sessions in which most variants show: many small processes would be started for the others."""

    def _sessions(self) -> Iterator[Callable[[], None]]:
        yield self._requests_session
        yield self._together_session
        yield self._field_units_session


class Site:
    """A daemon whose links lead through proxies."""

    def __init__(self) -> None:
        self._stack = contextlib.ExitStack()
        self._daemon = self._stack.enter_context(RealDaemon(PLAYED))

    def check(self, variant: Variant) -> Report:
        first = self._daemon.simulator_port
        mine = free_ports(2)
        with contextlib.ExitStack() as stack:
            for i in range(2):
                stack.enter_context(Background(variant.simulators(mine + i), port=first + i))
            port = stack.enter_context(Background(variant.masters(self._daemon.port)))
            return check(port, mine, Check if variant.rule in ("D20", "D36", "") else ShortCheck)

    def close(self) -> None:
        self._stack.close()


def check(port: int, simulator_port: int, kind: Type[Check] = Check) -> Report:
    shake = Handshake(0, "/tmp/", "CHECK", 1, "2017.2", "tester", "0")
    ports = (simulator_port, simulator_port + 1)
    return kind("127.0.0.1", port, shake, simulator_ports=ports, patience=SOON).run()


class DaemonCheckTest(unittest.TestCase):
    def assert_kept(self, report: Report) -> None:
        wrong = {n: j for n, j in report.judgements.items() if j.verdict != PASSED}
        self.assertEqual((wrong, report.status), ({}, 0))

    def test_daemon_keeps_every_rule(self) -> None:
        with RealDaemon(PLAYED) as daemon:
            self.assert_kept(check(daemon.port, daemon.simulator_port))

    def test_daemon_with_the_stand_in_keeps_what_can_be_judged(self) -> None:
        with RealDaemon(STAND_IN) as daemon:
            shake = Handshake(0, daemon.path, "COMP", 1, "2017.2", "tester", "0")
            report = Check("127.0.0.1", daemon.port, shake, patience=SOON).run()
        self.assertEqual(report.status, 0, report.broken)
        self.assertGreater(report.count(PASSED), 15)

    def test_broken_daemons_are_caught_by_the_rule_that_they_break(self) -> None:
        missed: List[str] = []
        sites = [Site() for _ in range(4)]
        try:
            with ThreadPoolExecutor(len(sites)) as pool:
                shares = [list(BROKEN.items())[i :: len(sites)] for i in range(len(sites))]
                for found in pool.map(_missed, sites, shares):
                    missed += found
        finally:
            for site in sites:
                site.close()
        self.assertEqual(missed, [])

    def test_daemon_behind_a_slow_network_is_right(self) -> None:
        site = Site()
        try:
            self.assert_kept(site.check(Variant("", packet=700)))
        finally:
            site.close()


def _missed(site: Site, variants: List[Tuple[str, Variant]]) -> List[str]:
    missed = []
    for name, variant in variants:
        report = site.check(variant)
        judgement = report.judgements[variant.rule]
        if judgement.verdict != FAILED or report.status != 1:
            missed.append(f"{name}: {variant.rule} {judgement}, {report.broken}")
    return missed


if __name__ == "__main__":
    unittest.main()
