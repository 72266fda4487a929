"""A relay in front of a server, which keeps what passes as a capture file."""

import itertools
import socket
import struct
import threading
import time

SYN, ACK, FIN = 2, 16, 1
SEGMENT = 700  # small: commands must be put together again


class Wire:
    """One TCP connection as a capture would have it, between ports of 127.0.0.1."""

    def __init__(self, relay, port):
        self.relay, self.ports = relay, (port, relay.port)
        self.sent = [1, 1]
        self.put(0, SYN, back=-1)
        self.put(1, SYN | ACK, back=-1)

    def put(self, side, flags, data=b"", back=0):
        """A segment from the client (0) or the server (1)."""
        ports, sent = self.ports[::1 - 2 * side], self.sent[::1 - 2 * side]
        tcp = struct.pack(">HHIIBBHHH", *ports, sent[0] + back, sent[1], 0x50, flags, 65535, 0, 0)
        ip = struct.pack(">BBHIBBH4s4s", 0x45, 0, 20 + len(tcp) + len(data), 0, 64, 6, 0,
                         b"\x7f\0\0\1", b"\x7f\0\0\1")
        self.relay.packets.append((time.time(), ip + tcp + data))
        self.sent[side] += len(data) + (flags & FIN)

    def carry(self, side, data):
        for at in range(0, len(data), SEGMENT):
            self.put(side, ACK, data[at:at + SEGMENT])


class Relay:
    """Listens, and passes all on to `server`, which may be set later."""

    def __init__(self):
        self.server, self.packets, self.lock = None, [], threading.Lock()
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        self.address = f"127.0.0.1:{self.port}"
        threading.Thread(target=self._accept, daemon=True).start()

    def close(self):
        self.listener.close()

    def _accept(self):
        while True:
            try:
                near, (_, port) = self.listener.accept()
            except OSError:
                return
            host, _, number = self.server.partition(":")
            far = socket.create_connection((host, int(number)))
            with self.lock:
                wire = Wire(self, port)
            for side, ends in enumerate(((near, far), (far, near))):
                threading.Thread(target=self._pass, args=(wire, side, *ends), daemon=True).start()

    def _pass(self, wire, side, source, target):
        try:
            while data := source.recv(65536):
                with self.lock:
                    wire.carry(side, data)
                target.sendall(data)
            target.shutdown(socket.SHUT_WR)
        except OSError:
            pass
        with self.lock:
            wire.put(side, FIN | ACK)

    def write(self, path, change=lambda _, packet: packet):
        """A capture file of raw IPv4; `change` gives what becomes of a packet, or None."""
        with self.lock, open(path, "wb") as file:
            file.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 101))
            for (when, packet), number in zip(self.packets, itertools.count()):
                kept = change(number, packet)
                if kept is not None:
                    file.write(struct.pack("<IIII", int(when), int(when % 1 * 1e6), len(kept),
                                           len(packet)) + kept)
