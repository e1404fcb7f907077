#include "board.h"

#include "clock.h"

namespace vitals {

void Board::beginJoin(const Keys& keys) {
  const std::lock_guard<std::mutex> lock(mutex_);
  ++picture_.deliveries.once;
  published_ = KeySet(keys.begin(), keys.end());
  joinBegan_ = lastJoinValue_ = now();
}

void Board::takeKeys(const Keys& keys) {
  const std::lock_guard<std::mutex> lock(mutex_);
  ++picture_.deliveries.allValues;
  if (!picture_.join.complete) endJoin(keys);
}

void Board::endJoin(const Keys& keys) {
  // What vanished meanwhile, such as a network interface, left the list before it was withdrawn.
  const KeySet still(keys.begin(), keys.end());
  const KeySet gone = compareKeys(published_, still).missing;
  const KeySet expected = compareKeys(published_, gone).missing;
  KeySet received;
  for (const Row& row : picture_.rows) {
    if (row.reading && gone.count(row.key) == 0) received.insert(row.key);
  }
  picture_.join = {true, expected.size(), received.size(), compareKeys(expected, received),
                   lastJoinValue_ - joinBegan_};
}

bool Board::addRow(const std::string& key) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (!places_.emplace(key, picture_.rows.size()).second) return false;
  picture_.rows.push_back({key, std::nullopt, false, now(), {}});
  return true;
}

void Board::takeValue(const std::string& key, const Reading& reading) {
  const std::int64_t time = now();
  const std::lock_guard<std::mutex> lock(mutex_);
  ++picture_.deliveries.allValues;
  if (!picture_.join.complete) lastJoinValue_ = time;
  Row* row = find(key);
  if (row == nullptr) return;
  if (reading.since >= row->added) latencies_.add(time - reading.since);
  row->reading = reading;
  row->withdrawn = false;
}

void Board::takeWithdrawal(const std::string& key) {
  const std::lock_guard<std::mutex> lock(mutex_);
  Row* row = find(key);
  if (row == nullptr) return;
  row->reading.reset();
  row->withdrawn = true;
  row->history.clear();
}

void Board::countTopic(const std::string& topic) {
  const std::lock_guard<std::mutex> lock(mutex_);
  ++picture_.deliveries.multi;
  ++picture_.topics[topic];
}

void Board::remember() {
  const std::lock_guard<std::mutex> lock(mutex_);
  for (Row& row : picture_.rows) {
    if (!row.reading) continue;
    row.history.push_back(row.reading->amount);
    if (row.history.size() > kHistory) row.history.pop_front();
  }
}

Picture Board::picture() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  Picture copy = picture_;
  copy.liveValues = latencies_.count();
  copy.p50 = latencies_.microseconds(0.50);
  copy.p99 = latencies_.microseconds(0.99);
  for (const Row& row : copy.rows) {
    if (row.withdrawn) ++copy.withdrawn;
  }
  return copy;
}

bool Board::joined() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return picture_.join.complete;
}

Row* Board::find(const std::string& key) {
  const auto place = places_.find(key);
  return place == places_.end() ? nullptr : &picture_.rows[place->second];
}

}  // namespace vitals
