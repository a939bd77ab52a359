#include "control/control_server.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <system_error>
#include <vector>

#include "base/files.hpp"
#include "base/thread_name.hpp"
#include "control/socket_platform.hpp"

namespace vistrel {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::string_view kBadRequest = R"({"ok":false,"error":"Bad request"})";
constexpr std::string_view kBusyLine = "{\"ok\":false,\"error\":\"Busy\"}\n";
// The system's largest rather than the 8 a quiet server needs: macOS refuses connections beyond
// the backlog at once (Linux makes them wait), and a burst of clients should wait, not fail.
constexpr int kListenBacklog = SOMAXCONN;
constexpr size_t kReadChunk = 65536;
// Connections accepted per wake-up before pending ones are read again, so that a flood of new
// connections cannot starve requests already arriving.
constexpr int kAcceptsPerRound = 64;

struct Job {
  OwnedFd fd;
  std::string line;  // the request without its newline
};

// A connection whose request line is still arriving.
struct Pending {
  OwnedFd fd;
  std::string bytes;
  Clock::time_point deadline;
  bool done = false;  // handed on or closed: dropped after this round
};

std::string parentFolder(const std::string& path) {
  size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

bool setFlag(int fd, int getCommand, int setCommand, int flag) {
  int flags = ::fcntl(fd, getCommand);
  return flags >= 0 && ::fcntl(fd, setCommand, flags | flag) == 0;
}

}  // namespace

// What the accept loop, the answering threads and the tasks on the main queue share. A new one
// per start, so that threads left from an earlier run never mix with the current one.
struct ControlServer::Shared {
  Shared(MainQueue& q, ControlHandler& h, const ControlServerLimits& l)
      : mainQueue(q), handler(h), limits(l) {}

  MainQueue& mainQueue;
  ControlHandler& handler;
  const ControlServerLimits limits;

  std::mutex mutex;  // everything below
  std::condition_variable cv;
  bool stopped = false;
  int callsInFlight = 0;  // calls into the handler or the main queue running now
  std::deque<Job> jobs;   // complete requests waiting for a thread
  size_t workers = 0;     // answering threads alive
  size_t handedOff = 0;   // connections queued or being answered

  // Marks the start of a call into the handler or main queue; false once stopped.
  bool enterCall() {
    std::lock_guard lock(mutex);
    if (stopped) return false;
    ++callsInFlight;
    return true;
  }
  void leaveCall() {
    {
      std::lock_guard lock(mutex);
      --callsInFlight;
    }
    cv.notify_all();
  }
};

namespace {

using Shared = std::shared_ptr<ControlServer::Shared>;

// Any exception a handler lets escape (most likely an argument of an unexpected type) is
// answered as a bad request rather than ending the thread or the main loop.
template <class F>
auto guarded(F&& call) -> decltype(call()) {
  try {
    return call();
  } catch (...) {
    return std::string(kBadRequest);
  }
}

struct MainBox {
  std::optional<std::string> answer;
  bool abandoned = false;  // the connection stopped waiting
};

// Posts the request to the main queue and waits for its answer; nullopt after the wait or stop.
std::optional<std::string> answerOnMainThread(const Shared& s, ControlRequest request) {
  auto box = std::make_shared<MainBox>();
  if (!s->enterCall()) return std::nullopt;
  try {
    s->mainQueue.post([s, box, request = std::move(request)] {
      {
        std::lock_guard lock(s->mutex);
        if (s->stopped || box->abandoned) return;
        ++s->callsInFlight;
      }
      std::string answer =
          guarded([&] { return s->handler.answerOnMain(request.tool, request.args); });
      {
        std::lock_guard lock(s->mutex);
        box->answer = std::move(answer);
        --s->callsInFlight;
      }
      s->cv.notify_all();
    });
  } catch (...) {  // the queue could not take the task
  }
  s->leaveCall();

  std::unique_lock lock(s->mutex);
  s->cv.wait_for(lock, std::chrono::duration<double>(s->limits.mainWaitSeconds),
                 [&] { return box->answer.has_value() || s->stopped; });
  if (!box->answer) {
    box->abandoned = true;
    return std::nullopt;
  }
  return std::move(box->answer);
}

void answer(const Shared& s, Job& job) {
  std::optional<std::string> answer;
  std::optional<ControlRequest> request = parseControlRequest(job.line);
  if (!request) {
    answer = std::string(kBadRequest);
  } else {
    if (!s->enterCall()) return;
    answer = guarded([&] { return s->handler.answerOffMain(request->tool, request->args); });
    s->leaveCall();
    if (!answer) answer = answerOnMainThread(s, std::move(*request));
  }
  if (!answer) return;  // no answer in time: closing tells the client
  answer->push_back('\n');
  ControlSocket::sendAll(job.fd.get(), *answer);
}

void workerLoop(Shared s) {
  setCurrentThreadName("vistrel.control");
  for (;;) {
    Job job;
    {
      std::lock_guard lock(s->mutex);
      if (s->stopped || s->jobs.empty()) {
        --s->workers;
        return;
      }
      job = std::move(s->jobs.front());
      s->jobs.pop_front();
    }
    answer(s, job);
    job.fd.reset();
    std::lock_guard lock(s->mutex);
    --s->handedOff;
  }
}

void handOff(const Shared& s, Job job) {
  std::lock_guard lock(s->mutex);
  s->jobs.push_back(std::move(job));
  ++s->handedOff;
  if (s->workers >= s->limits.maxWorkers) return;  // a running thread takes it next
  try {
    std::thread(workerLoop, s).detach();
    ++s->workers;
  } catch (const std::system_error&) {
    // No thread now: the job waits for a running one or for the next request's new thread.
  }
}

// Reads what has arrived on a pending connection. True when the connection is done with here:
// handed to a thread, answered "Bad request", or closed by its client.
bool gather(const Shared& s, Pending& p, char* buffer) {
  ssize_t got = ::recv(p.fd.get(), buffer, kReadChunk, MSG_DONTWAIT);
  if (got < 0) return !(errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR);
  if (got == 0) return true;  // closed before a newline: no answer
  std::string_view chunk(buffer, static_cast<size_t>(got));
  size_t newline = chunk.find('\n');
  size_t take = newline == std::string_view::npos ? chunk.size() : newline;
  if (p.bytes.size() + take > s->limits.maxRequestBytes) {
    std::string line = std::string(kBadRequest) + "\n";
    sendWithoutSignal(p.fd.get(), line.data(), line.size(), true);
    return true;
  }
  p.bytes.append(chunk.substr(0, take));
  if (newline == std::string_view::npos) return false;
  handOff(s, Job{std::move(p.fd), std::move(p.bytes)});
  return true;
}

// Accepts what waits on the listener. False when the listener itself has failed.
bool acceptSome(const Shared& s, int listener, std::vector<Pending>& pending, Clock::time_point now,
                Clock::time_point& pausedUntil) {
  for (int round = 0; round < kAcceptsPerRound; ++round) {
    OwnedFd fd(s->limits.accept(listener));
    if (!fd) {
      int error = errno;
      if (error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM) {
        pausedUntil = now + std::chrono::milliseconds(100);  // out of descriptors: back off
        return true;
      }
      return error == EAGAIN || error == EWOULDBLOCK || error == EINTR || error == ECONNABORTED ||
             error == EPROTO;
    }
    size_t open;
    {
      std::lock_guard lock(s->mutex);
      open = pending.size() + s->handedOff;
    }
    if (open >= s->limits.maxConnections) {
      sendWithoutSignal(fd.get(), kBusyLine.data(), kBusyLine.size(), true);
      continue;
    }
    setSocketTimeout(fd.get(), SO_SNDTIMEO, s->limits.requestSeconds);
    auto deadline = now + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(
                              std::clamp(s->limits.requestSeconds, 0.0, 86400.0)));
    pending.push_back(Pending{std::move(fd), {}, deadline, false});
  }
  return true;
}

int pollTimeoutMs(Clock::time_point now, Clock::time_point until) {
  if (until == Clock::time_point::max()) return -1;
  if (until <= now) return 0;
  auto ms = std::chrono::ceil<std::chrono::milliseconds>(until - now).count();
  return static_cast<int>(std::min<decltype(ms)>(ms, INT_MAX));
}

// Accepts connections and gathers their request lines until a byte arrives on `wake`.
void acceptLoop(Shared s, int listener, int wake) {
  setCurrentThreadName("vistrel.control.accept");
  std::vector<Pending> pending;
  std::vector<pollfd> polls;
  std::vector<char> buffer(kReadChunk);
  Clock::time_point pausedUntil{};
  for (;;) {
    Clock::time_point now = Clock::now();
    bool listening = now >= pausedUntil;
    Clock::time_point wakeAt = listening ? Clock::time_point::max() : pausedUntil;
    polls.clear();
    polls.push_back({wake, POLLIN, 0});
    polls.push_back({listening ? listener : -1, POLLIN, 0});  // poll skips negative descriptors
    for (const Pending& p : pending) {
      polls.push_back({p.fd.get(), POLLIN, 0});
      wakeAt = std::min(wakeAt, p.deadline);
    }
    int ready = ::poll(polls.data(), polls.size(), pollTimeoutMs(now, wakeAt));
    if (ready < 0) {
      if (errno == EINTR || errno == EAGAIN) continue;
      return;
    }
    if (polls[0].revents != 0) return;
    now = Clock::now();
    for (size_t i = 0; i < pending.size(); ++i) {
      pending[i].done = (polls[i + 2].revents != 0 && gather(s, pending[i], buffer.data())) ||
                        pending[i].deadline <= now;  // a stalled client is closed unanswered
    }
    std::erase_if(pending, [](const Pending& p) { return p.done; });
    if (polls[1].revents & POLLNVAL) return;
    if (polls[1].revents != 0 && !acceptSome(s, listener, pending, now, pausedUntil)) return;
  }
}

}  // namespace

ControlServer::ControlServer(MainQueue& mainQueue, ControlHandler& handler, std::string path,
                             ControlServerLimits limits)
    : mainQueue_(mainQueue), handler_(handler), path_(std::move(path)), limits_(limits) {}

ControlServer::~ControlServer() {
  stop();
}

bool ControlServer::isListening() const {
  std::lock_guard lock(mutex_);
  return static_cast<bool>(listener_);
}

namespace {

// True when a server answers on `path` already (another instance of the application).
bool someoneListens(const std::string& path) {
  OwnedFd probe(ControlSocket::connect(path, 1));
  return static_cast<bool>(probe);
}

void refuse(const std::string& why) {
  std::fprintf(stderr, "Vistrel: not listening for agents: %s\n", why.c_str());
}

}  // namespace

bool ControlServer::start() {
  std::lock_guard lock(mutex_);
  if (listener_) return true;
  const std::string bound = ControlSocket::boundPath(path_);
  const std::string folder = parentFolder(bound);
  makeFolders(folder);  // a failure shows in the check below
  struct stat info {};
  if (::stat(folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
    refuse(folder + " cannot be created");
    return false;
  }
  // Whoever may write the folder may replace the socket with their own and read what agents ask.
  if ((info.st_mode & (S_IWGRP | S_IWOTH)) != 0 || info.st_uid != ::geteuid()) {
    refuse(folder + " is writable by other users");
    return false;
  }
  if (::lstat(bound.c_str(), &info) == 0) {
    if (!S_ISSOCK(info.st_mode)) {
      refuse(bound + " exists and is not a socket");
      return false;
    }
    if (someoneListens(bound)) {
      refuse("another Vistrel answers on " + bound);
      return false;
    }
    ::unlink(bound.c_str());  // left by an instance that ended without stopping
  }

  OwnedFd fd(openUnixStreamSocket());
  if (!fd) return false;
  sockaddr_un address;
  socklen_t length = ControlSocket::address(path_, address);
  if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), length) != 0) return false;
  // Owner only, set before listen: until then every connection is refused, so nobody connects
  // while the file still has the mode the umask gave it.
  if (::chmod(bound.c_str(), 0600) != 0 || ::lstat(bound.c_str(), &info) != 0 ||
      ::listen(fd.get(), kListenBacklog) != 0 || !setFlag(fd.get(), F_GETFL, F_SETFL, O_NONBLOCK)) {
    ::unlink(bound.c_str());
    return false;
  }
  int pipeFds[2];
  if (::pipe(pipeFds) != 0) {
    ::unlink(bound.c_str());
    return false;
  }
  OwnedFd wakeRead(pipeFds[0]), wakeWrite(pipeFds[1]);
  setFlag(pipeFds[0], F_GETFD, F_SETFD, FD_CLOEXEC);
  setFlag(pipeFds[1], F_GETFD, F_SETFD, FD_CLOEXEC);

  auto shared = std::make_shared<Shared>(mainQueue_, handler_, limits_);
  try {
    acceptThread_ = std::thread(acceptLoop, shared, fd.get(), wakeRead.get());
  } catch (const std::system_error&) {
    ::unlink(bound.c_str());
    return false;
  }
  boundDevice_ = info.st_dev;
  boundInode_ = info.st_ino;
  listener_ = std::move(fd);
  wakeRead_ = std::move(wakeRead);
  wakeWrite_ = std::move(wakeWrite);
  shared_ = std::move(shared);
  return true;
}

void ControlServer::stop() {
  std::lock_guard lock(mutex_);
  if (!listener_) return;
  char byte = 1;
  while (::write(wakeWrite_.get(), &byte, 1) < 0 && errno == EINTR) {
  }
  if (acceptThread_.joinable()) acceptThread_.join();
  listener_.reset();
  wakeRead_.reset();
  wakeWrite_.reset();

  // Removed only while it is still the file this server bound: a later instance may own it now.
  const std::string bound = ControlSocket::boundPath(path_);
  struct stat info {};
  if (::lstat(bound.c_str(), &info) == 0 && info.st_dev == boundDevice_ &&
      info.st_ino == boundInode_) {
    ::unlink(bound.c_str());
  }

  std::shared_ptr<Shared> shared = std::move(shared_);
  std::deque<Job> dropped;
  {
    std::unique_lock sharedLock(shared->mutex);
    shared->stopped = true;
    dropped.swap(shared->jobs);  // closed below, outside the lock
    shared->cv.notify_all();
    shared->cv.wait(sharedLock, [&] { return shared->callsInFlight == 0; });
  }
}

}  // namespace vistrel
