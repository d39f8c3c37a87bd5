"""Watches the DHCP messages that reach a device (RFC 2131, RFC 2132)."""

import socket
import struct
import time
from dataclasses import dataclass

OFFER, ACK, NAK = 2, 5, 6
_ETH_P_IP = 0x0800
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


class Tap:
    """Collects the DHCP replies seen on one interface of a namespace."""

    def __init__(self, network, namespace, interface):
        self.messages = []
        self._socket = network.socket(namespace, socket.AF_PACKET, socket.SOCK_RAW, socket.htons(_ETH_P_IP))
        self._socket.bind((interface, _ETH_P_IP))
        self._socket.setblocking(False)

    def poll(self):
        while True:
            try:
                frame = self._socket.recv(4096)
            except BlockingIOError:
                return self.messages
            message = parse(frame)
            if message:
                self.messages.append(message)

    def last(self, kind):
        found = [message for message in self.poll() if message.kind == kind]
        return found[-1] if found else None

    def close(self):
        self._socket.close()
