"""A multicast stream, members of its group, and datagrams to see who gets them; all on sockets in namespaces."""

import itertools
import socket
import threading
import time

from network import wait_for
from tap import Frames

GROUP = "239.1.2.3"
PORT = 5004
STREAM = b"keel lab stream"  # in each of its packets
_PACKETS_PER_SECOND = 50


class Stream:
    """Sends to the group, from the moment it is made until close()."""

    def __init__(self, network, namespace, address):
        self._socket = network.socket(namespace, socket.AF_INET, socket.SOCK_DGRAM)
        self._socket.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(address))
        self._socket.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_TTL, 8)
        self._ended = threading.Event()
        self._thread = threading.Thread(target=self._send, daemon=True)
        self._thread.start()

    def _send(self):
        while not self._ended.wait(1 / _PACKETS_PER_SECOND):
            self._socket.sendto(STREAM, (GROUP, PORT))

    def close(self):
        self._ended.set()
        self._thread.join()
        self._socket.close()


class Member:
    """Has joined the group on a device with that address, until close()."""

    def __init__(self, network, namespace, address):
        self._socket = network.socket(namespace, socket.AF_INET, socket.SOCK_DGRAM)
        self._socket.bind((GROUP, PORT))
        self._socket.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                                socket.inet_aton(GROUP) + socket.inet_aton(address))
        self._socket.setblocking(False)

    def take(self):
        """How many packets of the stream have come since the last time."""
        packets = 0
        while True:
            try:
                packets += self._socket.recv(2048) == STREAM
            except BlockingIOError:
                return packets

    def close(self):
        self._socket.close()


def plays(member, seconds=20):
    """Whether packets come, now or soon."""
    member.take()
    return bool(wait_for(member.take, seconds))


def silent(count, seconds=20):
    """Whether, now or soon, nothing comes for a second; count gives the packets since the last time."""
    def quiet():
        count()
        time.sleep(1)
        return count() == 0
    return bool(wait_for(quiet, seconds, pause=0))


class Witnesses:
    """See which of several namespaces the datagrams sent from one of them reach."""

    _numbers = itertools.count(1)

    def __init__(self, network, namespaces):
        self._network = network
        self._frames = {name: Frames(network, name) for name in namespaces}

    def reached(self, source, address, port, control):
        """The namespaces that a datagram reaches. It is known to have gone its way when the control has it."""
        marker = f"keel lab datagram {next(self._numbers)};".encode()
        sender = self._network.socket(source, socket.AF_INET, socket.SOCK_DGRAM)
        with sender:
            sender.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
            sender.setsockopt(socket.SOL_SOCKET, socket.SO_BINDTODEVICE, b"eth0")
            sender.sendto(marker, (address, port))
        if not wait_for(lambda: self._frames[control].count(marker), 3, pause=0.02):
            return None
        time.sleep(0.05)  # one bridge, one turn: what others get is there by now
        return {control} | {name for name, frames in self._frames.items() if frames.count(marker)}

    def close(self):
        for frames in self._frames.values():
            frames.close()
