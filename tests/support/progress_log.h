// A progress sink for tests: keeps what one job was told, in order, and answers as the test
// says. A job's background reads report from their own threads, so the log is locked.
#pragma once
#include <mutex>
#include <string>
#include <vector>

#include "host/progress.h"

namespace test_support {

struct ProgressMessage {
  std::string text;  // "" for a null text
  int level;
};

class ProgressLog {
 public:
  // The answer to each message; null answers 0.
  int (*answer)(const char* text, int level) = nullptr;

  // The sink that reports into this log.
  ProgressSink Sink() { return ProgressSink{Receive, this}; }

  std::vector<ProgressMessage> Messages() const {
    std::lock_guard<std::mutex> hold(lock_);
    return messages_;
  }
  void Clear() {
    std::lock_guard<std::mutex> hold(lock_);
    messages_.clear();
  }
  // True when a message of `level` holds `part`.
  bool Said(const std::string& part, int level) const {
    for (const ProgressMessage& m : Messages())
      if (m.level == level && m.text.find(part) != std::string::npos) return true;
    return false;
  }
  int CountLevel(int level) const {
    int n = 0;
    for (const ProgressMessage& m : Messages()) n += m.level == level;
    return n;
  }

 private:
  static int Receive(void* context, const char* text, int level) {
    ProgressLog* log = static_cast<ProgressLog*>(context);
    {
      std::lock_guard<std::mutex> hold(log->lock_);
      log->messages_.push_back({text ? text : "", level});
    }
    return log->answer ? log->answer(text, level) : 0;
  }

  mutable std::mutex lock_;
  std::vector<ProgressMessage> messages_;
};

}  // namespace test_support
