#include "localservice/Listener.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <list>
#include <mutex>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace localservice {
namespace {

constexpr const char* address = "127.0.0.1";

// How long the end waits for clients that don't take their answers.
constexpr std::chrono::seconds patience{1};

std::uint16_t bind(httplib::Server& server, std::uint16_t port) {
  socket_t listening = -1;
  server.set_socket_options([&](socket_t socket) {
    listening = socket;
    // Leaves out SO_REUSEPORT, which is httplib's default: it hides that a port is in use.
    const int yes = 1;
    ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  });
  errno = 0;
  const int bound = port == 0                            ? server.bind_to_any_port(address)
                    : server.bind_to_port(address, port) ? port
                                                         : -1;
  if (bound <= 0) {
    throw std::runtime_error("Port " + std::to_string(port) +
                             " can't be used: " + std::generic_category().message(errno));
  }
  // httplib lets five wait, and whoever comes then waits for a second at least.
  ::listen(listening, SOMAXCONN);
  return static_cast<std::uint16_t>(bound);
}

// A connection has a thread of its own while it lasts: one that is kept holds nobody up. A thread
// that has ended is joined, since OpenSSL's part of it may end after the connection.
class ThreadPerConnection : public httplib::TaskQueue {
 public:
  void enqueue(std::function<void()> connection) override {
    {
      const std::scoped_lock lock(mutex_);
      ended_.clear();
      const auto thread = running_.emplace(running_.end());
      try {
        *thread = std::jthread([this, thread, connection] {
          connection();
          const std::scoped_lock ending(mutex_);
          ended_.splice(ended_.end(), running_, thread);
          changed_.notify_all();
        });
        return;
      } catch (const std::system_error&) {
        running_.erase(thread);
      }
    }
    connection();
  }

  void shutdown() override {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return running_.empty(); });
    ended_.clear();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  // Guarded by mutex_:
  std::list<std::jthread> running_;
  std::list<std::jthread> ended_;  // which no longer touch this
};

int portOf(decltype(getsockname) endOf, int socket) {
  sockaddr_in end{};
  socklen_t size = sizeof end;
  const bool isKnown = endOf(socket, reinterpret_cast<sockaddr*>(&end), &size) == 0;
  return isKnown && end.sin_family == AF_INET ? ntohs(end.sin_port) : 0;
}

// The sockets of the connections to `port`; httplib doesn't tell them. Without a descriptor to look
// for them there are none.
std::vector<int> connectionsTo(int port) {
  std::vector<int> sockets;
  std::error_code error;
  for (std::filesystem::directory_iterator entry("/proc/self/fd", error), end;
       !error && entry != end; entry.increment(error)) {
    const int descriptor = std::stoi(entry->path().filename());
    if (portOf(getsockname, descriptor) == port) sockets.push_back(descriptor);
  }
  return sockets;
}

}  // namespace

Listener::Listener(std::unique_ptr<httplib::Server> server, std::uint16_t port,
                   std::size_t requestsPerConnection)
    : server_(std::move(server)) {
  server_->set_tcp_nodelay(true);
  server_->set_keep_alive_max_count(requestsPerConnection);
  // Asked for once the server can be told to stop, and not before.
  std::promise<void> listening;
  server_->new_task_queue = [&] {
    listening.set_value();
    return new ThreadPerConnection;
  };
  port_ = bind(*server_, port);
  ended_ = std::async(std::launch::async, [this] { server_->listen_after_bind(); });
  listening.get_future().wait();
}

Listener::~Listener() {
  server_->stop();
  // What comes from now on isn't waited for.
  for (int how = SHUT_RD;; how = SHUT_RDWR) {
    for (const int connection : connectionsTo(port_)) ::shutdown(connection, how);
    if (ended_.wait_for(patience) == std::future_status::ready) break;
  }
}

void reset(int port, int peerPort) {
  for (const int connection : connectionsTo(port)) {
    if (portOf(getpeername, connection) == peerPort) {
      // Linux answers this with a reset.
      const sockaddr nobody{.sa_family = AF_UNSPEC, .sa_data = {}};
      static_cast<void>(::connect(connection, &nobody, sizeof nobody));
    }
  }
}

}  // namespace localservice
