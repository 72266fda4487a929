"""Relays between the connector and its servers, each of which can misbehave.

One process runs them all. What a relay does to the answers that pass through it is its
mode; a fault that happens to an answer is counted when it has happened.
"""

import asyncio
import collections
import multiprocessing
import random
import re
import signal
import socket
import struct

from fake_server import BUSY, FINISH, GET_DATA, GET_PROPS, PING, PUT_DATA, SERVICE, word

# What follows a command: words and texts. All that either side may say.
TO_SERVER = {PING: "", GET_PROPS: "t", SERVICE: "t", PUT_DATA: "t"}
FROM_SERVER = {3: "t", 4: "t", 6: "wt", 7: "t", 8: "t", FINISH: "", 14: "t", GET_DATA: "w",
               18: "tt", 37: "tt", BUSY: "", 40: "w", 41: "w"}

MODES = ("refuse", "reset", "swallow", "busy", "slow", "half", "twice", "late")
MARK = re.compile(rb"mark=([a-z0-9-]+)")
TOO_CLOSE = 0.1  # seconds, in which the machine may have held up whoever looked and sent
LONGEST_COPY = 32 << 10  # an answer that is sent again leaves in one piece
BLOCK = 64 << 10


class Commands:
    """Finds the ends of commands in bytes that come in pieces."""

    def __init__(self, operands):
        self.operands = operands
        self.begun, self.skip = b"", 0
        self.command, self.expected = None, ""

    def feed(self, data):
        """Yields how far into `data` each command ends that ends there, and its number."""
        at = 0
        while at < len(data):
            step = min(self.skip or 4 - len(self.begun), len(data) - at)
            begun = data[at:at + step]
            at += step
            if self.skip:
                self.skip -= step
            else:
                self.begun += begun
                if len(self.begun) < 4:
                    return
                self._take(struct.unpack(">i", self.begun)[0])
                self.begun = b""
            if not self.skip and not self.expected:
                yield at, self.command

    def _take(self, number):
        if self.expected:
            self.skip = max(number, 0) if self.expected[0] == "t" else 0
            self.expected = self.expected[1:]
        else:
            self.command, self.expected = number, self.operands.get(number, "")


class Broken(Exception):
    """The link ends here, by the will of its relay."""


class Link:
    """One connection of the connector's, and the one to the server behind it."""

    def __init__(self, relay, near):
        self.relay, self.near, self.far = relay, near, None
        self.task, self.abrupt = None, False  # abrupt: the connector sees a reset
        self.loop = asyncio.get_running_loop()
        self.asked = 0        # bytes of the connector, all in all
        self.has_body = False  # some request had one
        self.busy = False     # a conversation runs with the server
        self.questions, self.answers = Commands(TO_SERVER), Commands(FROM_SERVER)
        self.fault, self.cut, self.answer = None, None, b""
        self.spoke = None  # when it last spoke late, and was not asked since

    async def run(self):
        pumps = []
        try:
            if self.relay.strikes("reset", 0.5):
                raise ConnectionResetError
            self.far = await self._connect()
            pumps = [asyncio.ensure_future(pump()) for pump in (self._up, self._down)]
            done, _ = await asyncio.wait(pumps, return_when=asyncio.FIRST_COMPLETED)
            for pump in done:
                pump.result()
        except OSError:  # the server's process has gone, or the connector's end
            self.abrupt = True
        except (Broken, asyncio.CancelledError):
            pass
        finally:
            await self._end_pumps(pumps)
            self._close()

    async def _end_pumps(self, pumps):
        """A socket must not be closed while the loop still watches it."""
        for pump in pumps:
            pump.cancel()
        await asyncio.gather(*pumps, return_exceptions=True)

    def _close(self):
        if self.abrupt:
            self.near.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.near.close()
        if self.far is not None:
            self.far.close()

    def reset(self):
        """Ends the link from outside."""
        self.abrupt = True
        self.task.cancel()

    async def _connect(self):
        far = socket.socket()
        far.setblocking(False)
        far.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        try:
            await self.loop.sock_connect(far, self.relay.target)
        except BaseException:
            far.close()
            raise
        return far

    async def _up(self):
        while data := await self.loop.sock_recv(self.near, BLOCK):
            await self.relay.thawed.wait()
            self.asked += len(data)
            self.has_body |= b"content-length" in data
            self._note_crossing(data)
            ends = [command for _, command in self.questions.feed(data)]
            if self.relay.mode == "busy" and not self.busy:
                await self._refuse(ends)
            else:
                self.busy |= SERVICE in ends or GET_PROPS in ends
                await self.loop.sock_sendall(self.far, data)

    async def _refuse(self, ends):
        """A busy server: it has the question, and at times some of the body, and answers so."""
        if SERVICE in ends and self.has_body and self.relay.random.random() < 0.3:
            await self.loop.sock_sendall(self.near, word(GET_DATA) + word(1000))
        elif SERVICE in ends or GET_PROPS in ends or PUT_DATA in ends:
            self.relay.happened["busy"] += 1
            await self.loop.sock_sendall(self.near, word(BUSY))
            raise Broken

    async def _down(self):
        while data := await self.loop.sock_recv(self.far, BLOCK):
            await self.relay.thawed.wait()
            start = 0
            for end, command in self.answers.feed(data):
                if command == FINISH:
                    await self._pass_on(data[start:end], ended=True)
                    start = end
            if start < len(data):
                await self._pass_on(data[start:], ended=False)

    async def _pass_on(self, piece, ended):
        if not self.answer:
            self._choose_fault()
        self.answer += piece
        if self.fault == "slow":
            self.relay.happened["slow"] += 1
            await asyncio.sleep(self.relay.random.uniform(0.02, 0.3))
        if self.cut is not None and len(self.answer) >= self.cut:
            await self._break_off(piece)
        if ended:
            piece = self._end(piece)
        await self.loop.sock_sendall(self.near, piece)

    def _choose_fault(self):
        relay, self.cut = self.relay, None
        self.fault = relay.mode if relay.random.random() < 0.6 else None
        if self.fault in ("half", "reset"):
            # In the head, in the first blocks, or far behind.
            self.cut = relay.random.randrange(1, relay.random.choice([300, 3000, 200000]))

    async def _break_off(self, piece):
        self.relay.happened[self.fault] += 1
        kept = len(piece) - (len(self.answer) - self.cut)
        await self.loop.sock_sendall(self.near, piece[:kept])
        self.abrupt = self.fault == "reset" or self.relay.random.random() < 0.3
        raise Broken

    def _end(self, piece):
        """What leaves at the end of an answer."""
        answer, self.answer, self.busy = self.answer, b"", False
        if self.fault == "late":
            asyncio.ensure_future(self._speak_again(answer, self.asked))
        if self.fault != "twice" or len(answer) > LONGEST_COPY:
            return piece
        self.relay.happened["twice"] += 1
        return piece + answer

    async def _speak_again(self, answer, asked):
        """The whole answer once more, unless the connector has asked anew: then nobody
        could tell whose bytes these are."""
        await asyncio.sleep(self.relay.random.uniform(0.001, 0.1))
        try:
            if self.asked == asked and not self._has_news():
                self.near.send(answer)
                self.spoke = self.loop.time()
                self.relay.happened["late"] += 1
        except OSError:
            pass

    def _note_crossing(self, data):
        """A question that was under way when the relay spoke late: whoever looked before it
        sent the question saw nothing, and can't tell those bytes from its answer."""
        if self.spoke is not None and self.loop.time() - self.spoke < TOO_CLOSE:
            self.relay.crossed.update(mark.decode() for mark in MARK.findall(data))
        self.spoke = None

    def _has_news(self):
        """Whether bytes or the end have come that weren't read yet."""
        try:
            self.near.recv(1, socket.MSG_PEEK | socket.MSG_DONTWAIT)
            return True
        except BlockingIOError:
            return False


class Relay:
    """The address of a server, as the connector knows it."""

    def __init__(self, port, target, seed):
        self.port, self.target = port, target
        self.random = random.Random(seed)
        self.happened = collections.Counter()
        self.crossed = set()  # marks of requests that met late bytes on their way
        self.mode = None
        self.links, self.fillers = set(), []
        self.thawed = asyncio.Event()
        self.thawed.set()
        self.loop = asyncio.get_running_loop()
        self.listener = None
        self._listen()

    def strikes(self, mode, chance):
        hit = self.mode == mode and self.random.random() < chance
        self.happened[mode] += hit
        return hit

    def switch(self, mode):
        """Ends the mode before, and begins this one."""
        if self.mode == "refuse":
            self._listen()
        elif self.mode == "swallow":
            self._thaw()
        self.mode = mode
        if mode == "refuse":
            self._refuse()
        elif mode == "swallow":
            self._freeze()
        elif mode == "reset":
            self._reset_all()

    def _listen(self):
        self.listener = socket.create_server(("127.0.0.1", self.port), backlog=128)
        self.listener.setblocking(False)
        self._accept()

    def _accept(self):
        self.loop.add_reader(self.listener, self._take_link)

    def _pause(self):
        self.loop.remove_reader(self.listener)

    def _take_link(self):
        try:
            near, _ = self.listener.accept()
        except OSError:  # gone before it was taken
            return
        near.setblocking(False)
        near.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        link = Link(self, near)
        link.task = asyncio.ensure_future(link.run())
        self.links.add(link)
        link.task.add_done_callback(lambda _: self.links.discard(link))

    def _reset_all(self):
        for link in list(self.links):
            link.reset()

    def _refuse(self):
        self._pause()
        self.listener.close()
        self._reset_all()

    def _freeze(self):
        """From here on packets vanish: the kernel drops the SYNs of a full backlog."""
        self._pause()
        self.listener.listen(0)
        for _ in range(3):
            filler = socket.socket()
            filler.setblocking(False)
            filler.connect_ex(("127.0.0.1", self.port))
            self.fillers.append(filler)
        self.thawed.clear()

    def _thaw(self):
        for filler in self.fillers:
            filler.close()
        self.fillers.clear()
        self.listener.listen(128)
        self.thawed.set()
        if self.random.random() < 0.5:
            self._reset_all()
        self._accept()


async def _serve_orders(pipe, places, seed):
    relays = {name: Relay(port, target, f"{seed} {name}") for name, port, target in places}
    ended = asyncio.Event()

    def take_order():
        try:
            name, mode = pipe.recv()
        except (EOFError, OSError):
            return ended.set()
        if name is None:
            pipe.send((sum((relay.happened for relay in relays.values()), collections.Counter()),
                       set().union(*(relay.crossed for relay in relays.values()))))
            return ended.set()
        relays[name].switch(mode)
        pipe.send(None)

    asyncio.get_running_loop().add_reader(pipe.fileno(), take_order)
    pipe.send(None)
    await ended.wait()


def _run(pipe, places, seed):
    signal.signal(signal.SIGINT, signal.SIG_IGN)  # the driver ends this process
    asyncio.run(_serve_orders(pipe, places, seed))


class Relays:
    """The process of all relays, as the driver has it. One order at a time."""

    def __init__(self, places, seed):
        """`places` are the server's name, the relay's port, and the server's address."""
        context = multiprocessing.get_context("fork")
        self.pipe, theirs = context.Pipe()
        self.process = context.Process(target=_run, args=(theirs, places, seed), daemon=True)
        self.process.start()
        theirs.close()
        self.pipe.recv()

    def switch(self, name, mode):
        self.pipe.send((name, mode))
        self.pipe.recv()

    def close(self):
        """Ends the process; gives how often each fault has happened, and the marks of the
        requests that met late bytes on their way."""
        self.pipe.send((None, None))
        found = self.pipe.recv()
        self.process.join(10)
        return found

    def kill(self):
        self.process.kill()
        self.process.join(10)
