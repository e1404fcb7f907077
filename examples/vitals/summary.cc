#include "summary.h"

#include "format.h"

namespace vitals {
namespace {

std::string count(std::int64_t number) { return formatCount(static_cast<std::uint64_t>(number)); }

std::string names(const KeySet& keys) {
  std::string text;
  for (const std::string& key : keys) text += " " + key;
  return text;
}

std::string describeHub(const std::optional<HubStatistics>& hub) {
  if (!hub) return "nothing was heard of the hub in the end";
  return count(hub->published) + " values: " + count(hub->published - hub->suppressed) +
         " passed on, " + count(hub->suppressed) + " unchanged and suppressed";
}

std::string describeDeliveries(const Deliveries& d) {
  return formatCount(d.total()) + " values: AllValues " + formatCount(d.allValues) + ", prefix " +
         formatCount(d.multi) + ", NewValues " + formatCount(d.newValues) + ", Once " +
         formatCount(d.once);
}

std::string describeJoin(const Join& join) {
  if (!join.complete) return "not complete";
  std::string text = formatCount(join.received) + " of " + formatCount(join.expected) +
                     " cached values at once, in " + formatMicroseconds(join.nanoseconds / 1000);
  if (!join.difference.missing.empty()) text += "; missed:" + names(join.difference.missing);
  if (!join.difference.unexpected.empty()) {
    text += "; never published:" + names(join.difference.unexpected);
  }
  return text;
}

std::string describeLatency(const Picture& picture) {
  return "p50 " + formatMicroseconds(picture.p50) + ", p99 " + formatMicroseconds(picture.p99) +
         " from publisher to callback, " + formatCount(picture.liveValues) + " values";
}

std::string describeWithdrawals(const Picture& picture, const std::optional<HubStatistics>& hub,
                                bool sensorEnded) {
  if (!sensorEnded) return "nothing: the sensor has not said that it ends";
  return formatCount(picture.withdrawn) + " of " + formatCount(picture.rows.size()) +
         " values and the list of them" + (hub ? "; the hub counted " + count(hub->withdrawn) : "");
}

std::string describeCalls(const CallReport& calls) {
  if (!calls.fault.empty()) return calls.fault;
  if (calls.right == 0) return "nothing";
  return formatCount(calls.right) + " times by way of the hub, and every answer was right";
}

std::string describeRoundTrip(const CallReport& calls) {
  if (calls.timed == 0) return "no call was timed";
  return "p50 " + formatMicroseconds(calls.p50) + ", p99 " + formatMicroseconds(calls.p99) +
         " from call to answer, " + formatCount(calls.timed) + " calls";
}

std::string describeErrors(const std::vector<CaughtError>& errors) {
  if (errors.empty()) return "none was provoked";
  std::string text = formatCount(errors.size()) + " provoked, each caught as what it is";
  for (const CaughtError& error : errors) {
    std::string kind = error.kind;
    kind.resize(19, ' ');
    text += "\n               " + kind + error.text;
  }
  return text;
}

}  // namespace

Summary summarize(const Picture& picture, const std::optional<HubStatistics>& hub,
                  bool sensorEnded) {
  const auto line = [](const char* name, const std::string& text) {
    return "  " + std::string(name) + text + "\n";
  };
  Summary summary;
  summary.text = "\n" + line("published    ", describeHub(hub)) +
                 line("delivered    ", describeDeliveries(picture.deliveries)) +
                 line("late joiner  ", describeJoin(picture.join)) +
                 line("latency      ", describeLatency(picture)) +
                 line("called       ", describeCalls(picture.calls)) +
                 line("round trip   ", describeRoundTrip(picture.calls)) +
                 line("errors       ", describeErrors(picture.calls.errors)) +
                 line("withdrawn    ", describeWithdrawals(picture, hub, sensorEnded));
  summary.good = hub && picture.join.complete && picture.join.difference.none() &&
                 picture.calls.fault.empty() && picture.calls.right > 0 &&
                 (!sensorEnded || picture.withdrawn == picture.rows.size());
  return summary;
}

}  // namespace vitals
