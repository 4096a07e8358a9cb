#include "runtime/launch_record.h"

#include <c10/util/Exception.h>

#include <utility>

namespace quillon {
namespace {

// Of the thread: one list for each begin that has not ended. The flag needs no construction, so that it costs a load.
thread_local bool recording = false;
std::vector<std::vector<LaunchRecord>>& lists() {
  static thread_local std::vector<std::vector<LaunchRecord>> of_thread;
  return of_thread;
}

}  // namespace

void begin_launch_records() {
  lists().emplace_back();
  recording = true;
}

std::vector<LaunchRecord> end_launch_records() {
  TORCH_CHECK(recording, "no launches are being recorded on this thread");
  std::vector<LaunchRecord> records = std::move(lists().back());
  lists().pop_back();
  recording = !lists().empty();
  return records;
}

bool records_launches() {
  return recording;
}

void record_launch(LaunchRecord record) {
  for (std::vector<LaunchRecord>& list : lists()) list.push_back(record);
}

}  // namespace quillon
