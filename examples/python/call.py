#!/usr/bin/env python3
"""Calls a method of a service, and prints the result or how the call failed."""

import argparse
import os
import sys

import tessel_wire
import zmq


def read_arguments():
    parser = argparse.ArgumentParser(description=__doc__)
    option = parser.add_argument
    option("service", metavar="SERVICE")
    option("instance", metavar="INSTANCE")
    option("method", metavar="METHOD")
    option("payload", metavar="PAYLOAD", nargs="?", type=os.fsencode, default=b"")
    option("--at", metavar="ENDPOINT", default="tcp://localhost:9020", help="default: %(default)s")
    option("--timeout", metavar="SECONDS", type=float, default=5, help="default: %(default)s")
    return parser.parse_args()


def call(endpoint, message, seconds):
    """The reply, or None if none came in time."""
    with zmq.Context() as context, context.socket(zmq.REQ) as master:
        master.set(zmq.RCVTIMEO, int(seconds * 1000))
        master.set(zmq.LINGER, 0)  # do not wait for a master that is not there
        master.connect(endpoint)
        master.send_multipart(message)
        try:
            return tessel_wire.read_reply(master.recv_multipart())
        except zmq.Again:
            return None


def main():
    arguments = read_arguments()
    message = tessel_wire.request(
        arguments.service, arguments.instance, arguments.method, arguments.payload
    )
    reply = call(arguments.at, message, arguments.timeout)
    if reply is None:
        sys.exit("timeout")
    if reply.status == tessel_wire.SUCCESS:
        print(tessel_wire.text(reply.payload))
        return
    failures = {
        tessel_wire.SERVICE_ERROR: "service error",
        tessel_wire.BROKER_ERROR: "broker error",
        tessel_wire.CUSTOM_ERROR: "custom error",
    }
    failure = failures.get(reply.status, f"unknown status {reply.status}")
    sys.exit(f"{failure}: {tessel_wire.text(reply.payload)}")


if __name__ == "__main__":
    main()
