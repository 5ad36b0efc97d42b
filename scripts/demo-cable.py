#!/usr/bin/env python3
"""demo-cable.py [--quiet] GROUP...

The cable of the demonstration: takes the datagrams of each channel at 127.0.0.1, port 6001 for the first group and so on,
and sends them to the group on feed0. Every 20 s something is wrong with one of them for 5 s: packets are lost, or the
cable is out. Each fault is announced on standard output, a line each, and so is a sender from which nothing comes. Only
for use inside scripts/netns.sh.
"""
import selectors
import socket
import sys
import time

FIRST_PORT = 6001
CHANNEL_PORT = 5000
TTL = 8
FEED_ADDRESS = "10.99.0.2"
PERIOD_S = 20
FAULT_S = 5
DROP_ONE_IN = 40
SILENT_S = 1


class Channel:
    def __init__(self, group, port):
        self.group = group
        self.input = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.input.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 20)
        self.input.bind(("127.0.0.1", port))
        self.input.setblocking(False)
        self.output = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.output.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(FEED_ADDRESS))
        self.output.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_TTL, TTL)
        self.output.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_LOOP, 0)
        self.output.bind((FEED_ADDRESS, 0))
        self.seen = 0
        self.last = -SILENT_S

    def forward(self, fault):
        try:
            while True:
                datagram = self.input.recv(2048)
                self.seen += 1
                self.last = time.monotonic()
                if fault == "cut" or (fault == "loss" and self.seen % DROP_ONE_IN == 0):
                    continue
                self.output.sendto(datagram, (self.group, CHANNEL_PORT))
        except BlockingIOError:
            pass


def fault_at(seconds, channels):
    """The group that something is wrong with at that time, and what: ("239.1.1.1", "loss"), or (None, "")."""
    period, within = divmod(seconds, PERIOD_S)
    if within < PERIOD_S - FAULT_S:
        return None, ""
    turn = int(period)
    return channels[turn % len(channels)].group, ("loss", "cut")[turn // len(channels) % 2]


def main():
    groups = [argument for argument in sys.argv[1:] if argument != "--quiet"]
    quiet = "--quiet" in sys.argv
    selector = selectors.DefaultSelector()
    channels = []
    for index, group in enumerate(groups):
        channel = Channel(group, FIRST_PORT + index)
        channels.append(channel)
        selector.register(channel.input, selectors.EVENT_READ, channel)
    started = time.monotonic()
    said = None
    texts = {"loss": f"one datagram in {DROP_ONE_IN} is lost", "cut": "the cable is out"}
    while True:
        now = time.monotonic()
        group, fault = fault_at(now - started, channels)
        silent = [channel.group for channel in channels if now - channel.last >= SILENT_S]
        news = []
        if group:
            news.append(f"{group}: {texts[fault]} for {FAULT_S} s.")
        if silent:
            news.append(f"Nothing comes from the sender of {' and '.join(silent)}.")
        text = " ".join(news) or "The cable is well."
        if text != said and not quiet:
            print(text, flush=True)
            said = text
        for key, _ in selector.select(0.2):
            key.data.forward(fault if key.data.group == group else "")


main()
