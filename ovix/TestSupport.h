// Helpers shared by the ovix unit tests (never built into the library):
// a private runtime directory, an event recorder to wait on, forked peers.
#pragma once

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ovix/Object.h"

namespace ovix::testing {

using namespace std::chrono_literals;

// Points OVIX_RUNTIME_DIR at a fresh directory for the life of a test. The
// directory is world-searchable so a peer running as another user reaches it.
class ScopedRuntimeDirectory {
 public:
  ScopedRuntimeDirectory() {
    char tmpl[] = "/tmp/ovix-test-XXXXXX";
    path_ = ::mkdtemp(tmpl);
    std::filesystem::permissions(path_, std::filesystem::perms(0755));
    ::setenv("OVIX_RUNTIME_DIR", path_.c_str(), 1);
  }
  ~ScopedRuntimeDirectory() {
    ::unsetenv("OVIX_RUNTIME_DIR");
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// Keeps every event a handler saw, for a test thread to wait on. Handlers
// hold it by shared pointer: a last event may arrive after the test's scope.
class EventRecorder : public std::enable_shared_from_this<EventRecorder> {
 public:
  static std::shared_ptr<EventRecorder> make() { return std::make_shared<EventRecorder>(); }

  std::function<void(const Object&)> handler() {
    auto self = shared_from_this();
    return [self](const Object& e) { self->record(e); };
  }
  void record(const Object& e) {
    std::lock_guard lock(mutex_);
    events_.push_back(e);
    cv_.notify_all();
  }
  bool waitForCount(std::size_t n, std::chrono::milliseconds timeout = 5s) {
    std::unique_lock lock(mutex_);
    return cv_.wait_for(lock, timeout, [&] { return events_.size() >= n; });
  }
  bool waitFor(const Object& wanted, std::chrono::milliseconds timeout = 5s) {
    std::unique_lock lock(mutex_);
    return cv_.wait_for(lock, timeout, [&] { return countLocked(wanted) > 0; });
  }
  std::vector<Object> events() {
    std::lock_guard lock(mutex_);
    return events_;
  }
  std::size_t countOf(const Object& wanted) {
    std::lock_guard lock(mutex_);
    return countLocked(wanted);
  }

 private:
  std::size_t countLocked(const Object& wanted) const {
    std::size_t n = 0;
    for (const Object& e : events_) n += e == wanted;
    return n;
  }

  std::mutex mutex_;
  std::condition_variable cv_;
  std::vector<Object> events_;
};

// A forked peer running body, whose answer is its exit status. The child
// never returns into the test runner, dies with its parent, and is killed
// (by its pid) if a failing test leaves it running.
// A child forked from this threaded test process may find the sanitizer's
// allocator locked by a parent thread that does not exist in the child, and
// hang; tests that run code in such a child run in the ordinary build only.
#if defined(__SANITIZE_ADDRESS__)
#define OVIX_SKIP_IF_FORK_UNSAFE() \
  GTEST_SKIP() << "a forked child cannot allocate safely under AddressSanitizer"
#else
#define OVIX_SKIP_IF_FORK_UNSAFE() (void)0
#endif

class ChildProcess {
 public:
  explicit ChildProcess(const std::function<int()>& body) {
    const pid_t parent = ::getpid();
    pid_ = ::fork();
    if (pid_ == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (::getppid() != parent) ::_exit(127);
      ::_exit(body());
    }
  }
  ~ChildProcess() {
    if (pid_ > 0) waitStatus(0ms);
  }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }

  // The wait status, or -1 if the child did not end in time (it is then
  // killed).
  int waitStatus(std::chrono::milliseconds timeout = 10s) {
    if (pid_ <= 0) return -1;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    int status = 0;
    for (;;) {
      const pid_t r = ::waitpid(pid_, &status, WNOHANG);
      if (r == pid_ || r < 0) break;
      if (std::chrono::steady_clock::now() >= deadline) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, &status, 0);
        status = -1;
        break;
      }
      std::this_thread::sleep_for(5ms);
    }
    pid_ = -1;
    return status;
  }

  // The exit status, or -1 if the child did not exit normally in time.
  int wait(std::chrono::milliseconds timeout = 10s) {
    const int status = waitStatus(timeout);
    return status >= 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  pid_t pid_ = -1;
};

// One dictionary holding every type that can travel, with edge values.
inline Object everyTypeMessage() {
  Object inner = Object::makeDictionary();
  inner.setString("z-first", "kept before a");
  inner.setBool("a-second", false);
  Object list = Object::makeArray();
  list.append(Object::makeInt64(-1));
  list.append(Object::makeArray());
  list.append(Object::makeDictionary());
  list.append(Object::makeNull());

  Object m = Object::makeDictionary();
  m.set("null", Object::makeNull());
  m.setBool("true", true);
  m.setBool("false", false);
  m.setInt64("int64 min", INT64_MIN);
  m.setInt64("int64 max", INT64_MAX);
  m.setUInt64("uint64 max", UINT64_MAX);
  m.setDouble("double", -0.0);
  m.setDouble("double inf", std::numeric_limits<double>::infinity());
  m.setDouble("double small", 5e-324);
  m.setString("string", "h\xC3\xA9llo \xF0\x9F\x98\x80");
  m.setString("", "");
  m.setData("data", Bytes{0x00, 0xFF, 0x00, 0x7F});
  m.setData("empty data", Bytes{});
  m.setDate("date", -1234567890123456789LL);
  m.setUuid("uuid", Uuid{0x12, 0x34, 0x56, 0x78, 0x9a, 0xbc, 0xde, 0xf0, 0x0f, 0xed, 0xcb, 0xa9,
                         0x87, 0x65, 0x43, 0x21});
  m.set("array", list);
  m.set("dictionary", inner);
  return m;
}

}  // namespace ovix::testing
