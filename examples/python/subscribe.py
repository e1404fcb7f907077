#!/usr/bin/env python3
"""Prints the last values that a message broker has, and new ones as they come."""

import argparse
import itertools
import signal
import sys

import tessel_wire
import zmq


def read_arguments():
    parser = argparse.ArgumentParser(description=__doc__)
    option = parser.add_argument
    option("keys", metavar="TOPIC[:TAG]", nargs="+", type=tessel_wire.topic_and_tag)
    option("--at", metavar="ENDPOINT", default="tcp://localhost:9012", help="default: %(default)s")
    option("--count", metavar="N", type=int, help="end after N lines; default: at Ctrl-C")
    option("--timeout", metavar="SECONDS", type=float, help="fail when nothing comes for so long")
    return parser.parse_args()


def notifications(broker, keys):
    """What is new of the keys.

    A subscription is a prefix and brings longer keys as well. And whenever anybody subscribes to a
    key, its last value is replayed to all who have: those that have heard of the key leave it out.
    """
    heard = set()
    while True:
        notification = tessel_wire.read_notification(broker.recv_multipart())
        if notification is None or notification.key not in keys:
            continue
        if not notification.replayed or notification.key not in heard:
            heard.add(notification.key)
            yield notification


def main():
    arguments = read_arguments()
    keys = {f"{topic}:{tag}" for topic, tag in arguments.keys}
    signal.signal(signal.SIGINT, signal.SIG_DFL)  # end at once, and without a word
    if hasattr(signal, "SIGPIPE"):
        signal.signal(signal.SIGPIPE, signal.SIG_DFL)
    with zmq.Context() as context, context.socket(zmq.SUB) as broker:
        if arguments.timeout is not None:
            broker.set(zmq.RCVTIMEO, int(arguments.timeout * 1000))
        broker.connect(arguments.at)
        for key in keys:
            broker.subscribe(key)
        news = itertools.islice(notifications(broker, keys), arguments.count)
        try:
            for key, value, _, withdrawn in news:
                print(key, "withdrawn" if withdrawn else "= " + tessel_wire.text(value), flush=True)
        except zmq.Again:
            sys.exit("nothing came")


if __name__ == "__main__":
    main()
