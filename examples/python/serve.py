#!/usr/bin/env python3
"""Offers the service "greeter" through a master, as a slave of it does."""

import argparse
import signal
import threading

import tessel_wire
import zmq


class CustomError(Exception):
    """Carries bytes to the caller."""


def greet(payload):
    if not payload:
        raise CustomError(b"nobody to greet")
    return b"Hello, " + payload


METHODS = {"greet": greet}


def read_arguments():
    parser = argparse.ArgumentParser(description=__doc__)
    option = parser.add_argument
    option("--at", metavar="ENDPOINT", default="tcp://localhost:9020", help="default: %(default)s")
    option("--instance", metavar="NAME", default="python", help="default: %(default)s")
    option("--count", metavar="N", type=int, help="end after N calls; default: at Ctrl-C")
    return parser.parse_args()


def answer(request):
    """The reply to a request, whatever becomes of it."""
    try:
        if request.method not in METHODS:
            raise LookupError("no such method: " + request.method)
        result = METHODS[request.method](request.payload)
        return tessel_wire.reply(request, tessel_wire.SUCCESS, result)
    except CustomError as error:
        return tessel_wire.reply(request, tessel_wire.CUSTOM_ERROR, error.args[0])
    except Exception as error:  # the caller's to handle, whatever it is
        return tessel_wire.reply(request, tessel_wire.SERVICE_ERROR, str(error).encode())


def serve(master, count, ended):
    served = 0
    while served != count and not ended.is_set():
        if not master.poll(200):  # milliseconds: how soon it sees that it is to end
            continue
        request = tessel_wire.read_request(master.recv_multipart())
        if request is not None:
            master.send_multipart(answer(request))
            served += 1


def main():
    arguments = read_arguments()
    ended = threading.Event()
    for number in signal.SIGINT, signal.SIGTERM:
        signal.signal(number, lambda *_: ended.set())
    with zmq.Context() as context, context.socket(zmq.DEALER) as master:
        master.set(zmq.LINGER, 1000)  # what is sent last goes out, if the master is there
        master.connect(arguments.at)
        master.send_multipart(tessel_wire.registration("greeter", arguments.instance))
        serve(master, arguments.count, ended)
        master.send_multipart(tessel_wire.registration("greeter", arguments.instance, False))


if __name__ == "__main__":
    main()
