#pragma once
// Child processes for multi-process tests. A child dies with its parent (a
// failed or timed-out test leaves nothing spinning), a Child that goes out of
// scope is killed and reaped, and every wait is bounded.
#include <fcntl.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>

namespace testkit {

class Child {
 public:
  // Runs fn in a child process: its result is the exit status; an exception
  // exits 1 after printing what it was.
  explicit Child(const std::function<int()>& fn) {
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (getppid() != parent) _exit(99);  // the parent died before prctl
      int status = 1;
      try {
        status = fn();
      } catch (const std::exception& e) {
        fmt::print(stderr, "child {}: {}\n", getpid(), e.what());
      }
      _exit(status);
    }
  }
  ~Child() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }
  Child(Child&& o) noexcept : pid_(o.pid_) { o.pid_ = -1; }  // and no copies

  // Exit status, 100 + the signal that ended it, or -1 when it did not end
  // within the timeout (it is then killed).
  int wait(std::chrono::milliseconds timeout = std::chrono::seconds(90)) {
    const auto until = std::chrono::steady_clock::now() + timeout;
    int status = 0;
    for (;;) {
      pid_t r = waitpid(pid_, &status, WNOHANG);
      if (r == pid_) break;
      if (std::chrono::steady_clock::now() > until) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
        return -1;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 100 + WTERMSIG(status);
  }
  int kill9() {
    kill(pid_, SIGKILL);
    return wait();
  }

 private:
  pid_t pid_ = -1;
};

// Polls cond until it holds or the timeout passes; false on timeout.
inline bool eventually(const std::function<bool()>& cond,
                       std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
  const auto until = std::chrono::steady_clock::now() + timeout;
  while (!cond()) {
    if (std::chrono::steady_clock::now() > until) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  return true;
}

// Counters in shared memory: every process forked later sees them, even killed.
struct Shared {
  std::atomic<uint64_t> done;      // operations the writer completed
  std::atomic<uint64_t> ready;     // processes ready to start
  std::atomic<uint64_t> answered;  // queries answered by readers
};

class SharedCounters {
 public:
  SharedCounters() {
    void* p = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) throw std::runtime_error("mmap of the shared counters failed");
    s_ = new (p) Shared{};
  }
  ~SharedCounters() { munmap(s_, sizeof(Shared)); }
  Shared* operator->() const { return s_; }

 private:
  Shared* s_;
};

}  // namespace testkit
