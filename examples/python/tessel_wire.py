"""The messages of tessel as lists of frames, for send_multipart() and recv_multipart().

docs/wire_format.md describes them byte by byte.
"""

from collections import namedtuple

SIGNATURE = b"RS02"
REQUEST, REPLY, REGISTRATION, PUBLICATION, WITHDRAWAL = (bytes([code]) for code in range(5))
REPLAYED, WITHDRAWN = 1, 2  # bits of a notification's flags
SUCCESS, SERVICE_ERROR, BROKER_ERROR, CUSTOM_ERROR = range(4)  # status of a reply

Notification = namedtuple("Notification", "key value replayed withdrawn")
Request = namedtuple("Request", "envelope reserved service instance method payload")
Reply = namedtuple("Reply", "status payload")


def topic_and_tag(text):
    """What TOPIC or TOPIC:TAG says; the tag is "default" when there is none."""
    topic, _, tag = text.partition(":")
    if ":" in tag:
        raise ValueError("a tag has no colons")
    return topic, tag or "default"


# Between publishers or subscribers and a message broker.


def publication(topic, tag, value, keep=True, even_if_equal=False):
    """To be sent by a PUSH socket."""
    options = word(keep | even_if_equal << 1)
    return [b"", SIGNATURE, PUBLICATION, topic.encode(), tag.encode(), value, options]


def withdrawal(topic, tag, forget=True):
    """To be sent by a PUSH socket."""
    return [b"", SIGNATURE, WITHDRAWAL, topic.encode(), tag.encode(), word(forget)]


def read_notification(frames):
    """What a SUB socket received; None if it is malformed."""
    if len(frames) != 3:
        return None
    key, value, flags = frames
    bits = int.from_bytes(flags[:8], "little")
    return Notification(text(key), value, bool(bits & REPLAYED), bool(bits & WITHDRAWN))


# Between clients and a master.


def request(service, instance, method, payload):
    """To be sent by a REQ socket."""
    called = [service.encode(), instance.encode(), method.encode()]
    return [SIGNATURE, REQUEST, b"\0", *called, payload]


def read_reply(frames):
    """What the REQ socket received; None if it is malformed."""
    if len(frames) != 5 or frames[:2] != [SIGNATURE, REPLY]:
        return None
    return Reply(int.from_bytes(frames[3][:1], "little"), frames[4])


# Between a slave and its master.


def registration(service, instance, offered=True):
    """To be sent by the slave's DEALER socket; not offered means withdrawn."""
    return [b"", SIGNATURE, REGISTRATION, bytes([offered]), service.encode(), instance.encode()]


def read_request(frames):
    """What the DEALER socket received; None if it is no well-formed request."""
    end = frames.index(b"") if b"" in frames else len(frames)
    envelope, message = frames[:end], frames[end + 1 :]
    if len(message) != 7 or message[:2] != [SIGNATURE, REQUEST]:
        return None
    reserved, service, instance, method, payload = message[2:]
    return Request(envelope, reserved, text(service), text(instance), text(method), payload)


def reply(answered, status, payload):
    """The answer to a request that was read, to be sent by the same socket."""
    header = [*answered.envelope, b"", SIGNATURE, REPLY]
    return [*header, answered.reserved, bytes([status]), payload]


def word(number):
    return int(number).to_bytes(8, "little")


def text(data):
    """Bytes to be looked at, whatever they are."""
    return data.decode(errors="backslashreplace")
