// Round-trip latency of a one-key request and its one-key reply between two
// processes over Ovix, beside a plain AF_UNIX ping-pong of the same sizes
// measured in the same run. A timed tool, not a test:
//   build/bin/ovix_latency [ROUND_TRIPS]   (default 20000 per transport)
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "ovix/Connection.h"
#include "ovix/Listener.h"
#include "ovix/WireFormat.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr const char* kService = "bench.latency";
constexpr int kRounds = 5;  // the transports alternate, so drift hits both alike

ovix::Object request() {
  ovix::Object m = ovix::Object::makeDictionary();
  m.setBool("prepareWorkContainer:", true);
  return m;
}

ovix::Object reply() {
  ovix::Object m = ovix::Object::makeDictionary();
  m.setBool("Response", true);
  return m;
}

std::size_t frameSize(const ovix::Object& m) {
  ovix::Bytes f;
  ovix::wire::encodeFrame(m, f);
  return f.size();
}

bool readFully(int fd, char* p, std::size_t n) {
  while (n > 0) {
    const ssize_t r = ::read(fd, p, n);
    if (r <= 0) return false;
    p += r;
    n -= static_cast<std::size_t>(r);
  }
  return true;
}

pid_t startChild(void (*body)(int), int arg, int parentsEnd) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::close(parentsEnd);  // or the peer would never see the parent hang up
    body(arg);
    ::_exit(0);
  }
  return pid;
}

// The Ovix peer: a service answering every request with one reply.
void ovixService(int readyFd) {
  auto listener = ovix::Listener::create(kService);
  if (!listener) ::_exit(1);
  (*listener)->setEventHandler([](const ovix::Object& event) {
    if (auto c = event.connectionValue()) {
      c->setEventHandler([c](const ovix::Object& e) {
        if (e.isDictionary()) c->send(reply());
      });
      c->resume();
    }
  });
  (*listener)->resume();
  [[maybe_unused]] ssize_t n = ::write(readyFd, "r", 1);
  ::pause();
}

std::size_t gRequestSize = 0;
std::size_t gReplySize = 0;

// The plain peer: reads a request's worth of bytes, writes a reply's worth.
void plainService(int fd) {
  std::vector<char> in(gRequestSize), out(gReplySize, 'x');
  while (readFully(fd, in.data(), in.size())) {
    if (::write(fd, out.data(), out.size()) != static_cast<ssize_t>(out.size())) break;
  }
}

struct Samples {
  std::vector<double> micros;
  double percentile(double p) {
    std::sort(micros.begin(), micros.end());
    return micros[static_cast<std::size_t>(p * static_cast<double>(micros.size() - 1))];
  }
};

}  // namespace

int main(int argc, char** argv) {
  const int total = argc > 1 ? std::max(kRounds, std::atoi(argv[1])) : 20000;
  const int perRound = total / kRounds;
  char dir[] = "/tmp/ovix-bench-XXXXXX";
  if (!std::getenv("OVIX_RUNTIME_DIR")) ::setenv("OVIX_RUNTIME_DIR", ::mkdtemp(dir), 1);
  gRequestSize = frameSize(request());
  gReplySize = frameSize(reply());

  int ready[2];
  if (::pipe(ready) != 0) return 1;
  const pid_t ovixPeer = startChild(ovixService, ready[1], ready[0]);
  char c;
  if (::read(ready[0], &c, 1) != 1) return 1;
  auto connected = ovix::Connection::connect(kService);
  if (!connected) {
    std::fprintf(stderr, "ovix_latency: %s\n", connected.error().description.c_str());
    return 1;
  }
  std::shared_ptr<ovix::Connection> connection = *connected;

  int pair[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) return 1;
  const pid_t plainPeer = startChild(plainService, pair[1], pair[0]);
  ::close(pair[1]);

  const ovix::Object message = request();
  std::vector<char> out(gRequestSize, 'x'), in(gReplySize);
  auto ovixTrip = [&] {
    connection->send(message);
    return connection->receive(std::chrono::seconds(5)).has_value();
  };
  auto plainTrip = [&] {
    return ::write(pair[0], out.data(), out.size()) == static_cast<ssize_t>(out.size()) &&
           readFully(pair[0], in.data(), in.size());
  };

  for (int i = 0; i < 1000; ++i) {  // warm up both paths
    if (!ovixTrip() || !plainTrip()) return 1;
  }
  Samples ovixSamples, plainSamples;
  for (int round = 0; round < kRounds; ++round) {
    for (int i = 0; i < perRound; ++i) {
      const auto t0 = Clock::now();
      if (!plainTrip()) return 1;
      plainSamples.micros.push_back(
          std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
    }
    for (int i = 0; i < perRound; ++i) {
      const auto t0 = Clock::now();
      if (!ovixTrip()) return 1;
      ovixSamples.micros.push_back(
          std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
    }
  }

  const double o50 = ovixSamples.percentile(0.50), o99 = ovixSamples.percentile(0.99);
  const double p50 = plainSamples.percentile(0.50), p99 = plainSamples.percentile(0.99);
  std::printf("round trips per transport: %d (request %zu bytes, reply %zu bytes)\n",
              perRound * kRounds, gRequestSize, gReplySize);
  std::printf("%-22s %10s %10s\n", "", "p50 (us)", "p99 (us)");
  std::printf("%-22s %10.1f %10.1f\n", "ovix request/reply", o50, o99);
  std::printf("%-22s %10.1f %10.1f\n", "plain AF_UNIX", p50, p99);
  std::printf("%-22s %10.2f %10.2f\n", "ratio ovix/plain", o50 / p50, o99 / p99);

  std::fflush(stdout);
  connection->cancel();
  ::close(pair[0]);
  ::kill(ovixPeer, SIGKILL);
  ::waitpid(ovixPeer, nullptr, 0);
  ::waitpid(plainPeer, nullptr, 0);
  if (std::string(dir).find('X') == std::string::npos) {
    std::string cleanup = std::string("rm -rf ") + dir;
    [[maybe_unused]] int rc = std::system(cleanup.c_str());
  }
  return 0;
}
