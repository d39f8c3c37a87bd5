"""Watches the frames that reach an interface, and the DHCP messages among them (RFC 2131, RFC 2132)."""

import socket
import struct
import time
from dataclasses import dataclass

OFFER, ACK, NAK = 2, 5, 6
_ETH_P_ALL = 0x0003
_COOKIE = b"\x63\x82\x53\x63"


@dataclass
class Message:
    when: float  # monotonic, s
    kind: int  # option 53
    address: str  # yiaddr
    options: dict  # number -> bytes


def parse(frame):
    """A DHCP reply (server to client) in an Ethernet frame, or None."""
    if len(frame) < 14 + 20 + 8 + 240 or frame[12:14] != b"\x08\x00" or frame[23] != socket.IPPROTO_UDP:
        return None
    header = (frame[14] & 0x0F) * 4
    udp = 14 + header
    if struct.unpack_from("!HH", frame, udp) != (67, 68):
        return None
    payload = frame[udp + 8:]
    if len(payload) < 240 or payload[0] != 2 or payload[236:240] != _COOKIE:
        return None
    options, at = {}, 240
    while at + 1 < len(payload) and payload[at] != 255:
        if payload[at] == 0:
            at += 1
            continue
        length = payload[at + 1]
        options[payload[at]] = payload[at + 2:at + 2 + length]
        at += 2 + length
    kind = options.get(53, b"\x00")[0]
    return Message(time.monotonic(), kind, socket.inet_ntoa(payload[16:20]), options)


class Frames:
    """The frames that come in on one interface of a namespace, whoever they are for."""

    def __init__(self, network, namespace, interface="eth0"):
        self._socket = network.socket(namespace, socket.AF_PACKET, socket.SOCK_RAW, socket.htons(_ETH_P_ALL))
        self._socket.bind((interface, _ETH_P_ALL))
        self._socket.setblocking(False)

    def take(self):
        """What has come in since the last time."""
        frames = []
        while True:
            try:
                frame, origin = self._socket.recvfrom(4096)
            except BlockingIOError:
                return frames
            except OSError:
                continue  # the interface went down: said once
            if origin[2] != socket.PACKET_OUTGOING:
                frames.append(frame)

    def count(self, marker):
        """How many frames with these bytes in them have come in since the last time."""
        return sum(marker in frame for frame in self.take())

    def close(self):
        self._socket.close()


class Tap:
    """Collects the DHCP replies that reach a LAN device."""

    def __init__(self, network, namespace):
        self.messages = []
        self._frames = Frames(network, namespace)

    def poll(self):
        self.messages += filter(None, map(parse, self._frames.take()))
        return self.messages

    def last(self, kind):
        found = [message for message in self.poll() if message.kind == kind]
        return found[-1] if found else None

    def close(self):
        self._frames.close()
