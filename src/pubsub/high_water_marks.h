#ifndef TESSEL_SRC_PUBSUB_HIGH_WATER_MARKS_H
#define TESSEL_SRC_PUBSUB_HIGH_WATER_MARKS_H

namespace tessel {

/// How many messages the sockets between a broker's cache transport and a dispatcher hold, on each
/// side and for each dispatcher. Every new subscription of a cached key is answered with its value,
/// so a dispatcher that subscribes to 100,000 keys gets as many values in one burst; and repeats of
/// a last value are suppressed, so one that is dropped leaves a subscriber stale for good.
///
/// The price is paid only by a dispatcher that falls behind: about 200 bytes for each notification
/// that waits, and its value besides if that is longer than 33 bytes.
constexpr int kReplayHighWaterMark = 1000000;

}  // namespace tessel

#endif
