#!/usr/bin/env python3
"""Publishes a value to a message broker, or withdraws it."""

import argparse
import os
import sys

import tessel_wire
import zmq


def read_arguments():
    parser = argparse.ArgumentParser(description=__doc__)
    option = parser.add_argument
    option("key", metavar="TOPIC[:TAG]", type=tessel_wire.topic_and_tag)
    what = parser.add_mutually_exclusive_group(required=True)
    what.add_argument("value", metavar="VALUE", nargs="?", type=os.fsencode)
    what.add_argument("--withdraw", action="store_true", help="withdraw what is published")
    option("--event", action="store_true", help="nothing to keep for those who come later")
    option("--repeat", action="store_true", help="pass it on even if it equals the last value")
    option("--at", metavar="ENDPOINT", default="tcp://localhost:9010", help="default: %(default)s")
    option("--timeout", metavar="SECONDS", type=float, default=5, help="default: %(default)s")
    return parser.parse_args()


def main():
    arguments = read_arguments()
    keep = not arguments.event
    if arguments.withdraw:
        message = tessel_wire.withdrawal(*arguments.key, keep)
    else:
        message = tessel_wire.publication(*arguments.key, arguments.value, keep, arguments.repeat)
    milliseconds = int(arguments.timeout * 1000)
    with zmq.Context() as context, context.socket(zmq.PUSH) as broker:
        broker.set(zmq.IMMEDIATE, 1)  # only queue for a broker that is there
        broker.set(zmq.SNDTIMEO, milliseconds)
        broker.set(zmq.LINGER, milliseconds)  # what is queued goes out before the program ends
        broker.connect(arguments.at)
        try:
            broker.send_multipart(message)
        except zmq.Again:
            sys.exit(f"no broker at {arguments.at}")


if __name__ == "__main__":
    main()
