// Resident memory of an Ovix service under unauthenticated load, and how
// promptly it serves an entitled client meanwhile. A measuring tool, not a
// test; run as root (the load comes from other uids):
//   build/bin/ovix_load_memory
// The service is a forked process serving like the helper: one request at a
// time, replies only to root. Load 1: 32 connections (two uids) each
// holding an unfinished frame that announces 16 MiB and sends 15 MiB.
// Load 2: 1,000 idle connections from 16 uids. Figures are the service's
// growth in resident memory, against the bytes the load sent, and the
// entitled round trip's median under load against the same without load.
#include <fcntl.h>
#include <grp.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ovix/Connection.h"
#include "ovix/Listener.h"
#include "ovix/ServiceName.h"
#include "ovix/Socket.h"
#include "ovix/WireFormat.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;
constexpr const char* kService = "bench.load";

void serve() {
  auto listener = ovix::Listener::create(kService);
  if (!listener) std::_Exit(3);
  static std::mutex oneAtATime;
  (*listener)->setEventHandler([](const ovix::Object& event) {
    auto c = event.connectionValue();
    if (!c) return;
    c->setEventHandler([c](const ovix::Object& e) {
      if (!e.isDictionary()) return;
      std::lock_guard lock(oneAtATime);
      if (c->auditToken().uid != 0) return;
      ovix::Object reply = ovix::Object::makeDictionary();
      reply.setBool("Response", true);
      c->send(reply);
    });
    c->resume();
  });
  (*listener)->resume();
  for (;;) ::pause();
}

long rssKiB(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);)
    if (line.rfind("VmRSS:", 0) == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
  return -1;
}

// Forks a process running as `uid` that opens `count` connections, runs
// `body` on each, then holds them until `release` is closed by the parent.
pid_t loadAs(uid_t uid, int count, void (*body)(int fd), const int release[2], const int ready[2]) {
  const pid_t pid = ::fork();
  if (pid != 0) return pid;
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  // Only the parent may hold the write end, or no child would see it close.
  ::close(release[1]);
  ::close(ready[0]);
  if (::setgroups(0, nullptr) != 0 || ::setresgid(uid, uid, uid) != 0 ||
      ::setresuid(uid, uid, uid) != 0)
    std::_Exit(4);
  std::vector<int> fds;
  const std::string path = ovix::socketPathForService(kService);
  for (int i = 0; i < count; ++i) {
    auto fd = ovix::socket::connectTo(path);
    if (!fd) break;
    fds.push_back(fd.value().release());
    body(fds.back());
  }
  char c = 1;
  [[maybe_unused]] ssize_t w = ::write(ready[1], &c, 1);
  [[maybe_unused]] ssize_t r = ::read(release[0], &c, 1);  // parent closes it
  std::_Exit(0);
}

void idle(int) {}

// The header of a 16 MiB frame, then 15 MiB of it, written as far as the
// service takes it within a second of stalling.
void partialFrame(int fd) {
  std::vector<std::uint8_t> bytes(12 + (15u << 20), 0);
  const std::uint8_t header[12] = {'O', 'V', 'X', 'F', 1, 0, 0, 0, 0, 0, 0, 1};
  std::copy(header, header + 12, bytes.begin());
  ::fcntl(fd, F_SETFL, O_NONBLOCK);
  std::size_t sent = 0;
  auto lastProgress = Clock::now();
  while (sent < bytes.size() && Clock::now() - lastProgress < 1s) {
    const ssize_t n = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n > 0) {
      sent += static_cast<std::size_t>(n);
      lastProgress = Clock::now();
    } else {
      std::this_thread::sleep_for(5ms);
    }
  }
}

double medianRoundTripUs(int rounds) {
  auto c = ovix::Connection::connect(kService);
  if (!c) return -1;
  ovix::Object request = ovix::Object::makeDictionary();
  request.setBool("ping:", true);
  std::vector<double> us;
  for (int i = 0; i < rounds; ++i) {
    const auto start = Clock::now();
    (*c)->send(request);
    auto reply = (*c)->receive(5s);
    if (!reply || reply->isError()) return -1;
    us.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }
  std::sort(us.begin(), us.end());
  return us[us.size() / 2];
}

struct Load {
  std::vector<pid_t> pids;
  int release[2];
  int ready[2];
};

Load start(const std::vector<uid_t>& uids, int perUid, void (*body)(int)) {
  Load load;
  if (::pipe(load.release) != 0 || ::pipe(load.ready) != 0) std::exit(5);
  for (uid_t uid : uids) load.pids.push_back(loadAs(uid, perUid, body, load.release, load.ready));
  char c;
  for (std::size_t i = 0; i < uids.size(); ++i) {
    if (::read(load.ready[0], &c, 1) != 1) break;
  }
  return load;
}

void stop(Load& load) {
  ::close(load.release[1]);
  for (pid_t p : load.pids) ::waitpid(p, nullptr, 0);
  ::close(load.release[0]);
  ::close(load.ready[0]);
  ::close(load.ready[1]);
}

void phase(const char* name, pid_t server, double idleUs, const std::vector<uid_t>& uids,
           int perUid, void (*body)(int), double sentMiBEach) {
  const long before = rssKiB(server);
  Load load = start(uids, perUid, body);
  std::fprintf(stderr, "%s: load in place\n", name);
  std::this_thread::sleep_for(500ms);
  const long during = rssKiB(server);
  const double busyUs = medianRoundTripUs(200);
  stop(load);
  std::this_thread::sleep_for(1500ms);
  const long after = rssKiB(server);
  const double grownMiB = static_cast<double>(during - before) / 1024;
  const double connections = static_cast<double>(uids.size() * perUid);
  std::printf("%s: RSS %.1f -> %.1f MiB (+%.1f MiB, %.1f KiB per connection", name, before / 1024.0,
              during / 1024.0, grownMiB, grownMiB * 1024 / connections);
  if (sentMiBEach > 0)
    std::printf("; %.3f of the %.0f MiB the load sent", grownMiB / (sentMiBEach * connections),
                sentMiBEach * connections);
  std::printf("), %.1f MiB after it left\n", after / 1024.0);
  std::printf("%s: entitled round trip median %.0f us under load, %.0f us idle (ratio %.2f)\n",
              name, busyUs, idleUs, busyUs / idleUs);
}

}  // namespace

int main() {
  if (::geteuid() != 0) {
    std::fprintf(stderr, "run as root: the load comes from other uids\n");
    return 2;
  }
  char dir[] = "/tmp/ovix-load-XXXXXX";
  if (!::mkdtemp(dir)) return 2;
  ::chmod(dir, 0755);
  ::setenv("OVIX_RUNTIME_DIR", dir, 1);
  rlimit files{8192, 8192};
  ::setrlimit(RLIMIT_NOFILE, &files);
  const pid_t server = ::fork();
  if (server == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    serve();
  }
  for (int i = 0; i < 200 && ::access(ovix::socketPathForService(kService).c_str(), F_OK) != 0; ++i)
    std::this_thread::sleep_for(10ms);
  const double idleUs = medianRoundTripUs(200);
  std::fprintf(stderr, "idle round trip %.0f us\n", idleUs);
  phase("32 partial 15 MiB frames", server, idleUs, {60001, 60002}, 16, partialFrame, 15.0);
  std::vector<uid_t> sixteen;
  for (uid_t u = 60101; u <= 60116; ++u) sixteen.push_back(u);
  phase("1008 idle connections", server, idleUs, sixteen, 63, idle, 0);
  ::kill(server, SIGKILL);
  ::waitpid(server, nullptr, 0);
  std::string cleanup = std::string("rm -rf ") + dir;
  return std::system(cleanup.c_str()) == 0 ? 0 : 1;
}
