#include "platform/URLSession.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <openssl/crypto.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <deque>
#include <iterator>
#include <map>
#include <mutex>
#include <new>
#include <optional>
#include <utility>

#include "platform/Thread.h"
#include "platform/URLError.h"

namespace quorva::platform {
namespace {

using Clock = std::chrono::steady_clock;
using Code = URLError::Code;

constexpr std::size_t maximumSize = 16 << 20;   // of a body, both as it comes and decompressed
constexpr std::size_t maximumHead = 256 << 10;  // of all headers that a request is answered with
constexpr long maximumRedirects = 20;
// How many requests are with curl at once, each on a connection of its own; the others wait here,
// since those that wait in curl may wait for good.
constexpr std::size_t atOnce = 6;

struct List {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using Headers = std::unique_ptr<curl_slist, List>;

// One request under way, as its coroutine awaits it. From `submit` until `awaiting` is posted it is
// the network thread's.
struct Transfer {
  explicit Transfer(URLRequest r) : request(std::move(r)) {}

  [[nodiscard]] bool await_ready() const noexcept { return false; }
  void await_suspend(std::coroutine_handle<> coroutine);
  HTTPResponse await_resume() { return std::move(*outcome).value(); }

  void finish(Result<HTTPResponse> result) {
    outcome = std::move(result);
    GeneralExecutor::post(awaiting);
  }

  const URLRequest request;
  std::coroutine_handle<> awaiting;
  std::optional<Result<HTTPResponse>> outcome;

  CURL* easy = nullptr;
  Headers headers;
  Headers connectTo;
  std::array<char, CURL_ERROR_SIZE> message{};
  Clock::time_point deadline;
  curl_off_t received = 0;   // of the body, as it comes
  std::size_t headSize = 0;  // of all heads so far
  bool headEnded = false;    // the last one's, by an empty line
  bool isTooLarge = false;
  int sendings = 0;  // of the request: more than one after a redirect or on a stale connection
  bool wentSmoothly = false;
  HTTPResponse response;
};

// The certificates that the system trusts. A folder with an entry for each, named by its hash,
// costs nothing to open; the bundle is parsed whole.
struct TrustStore {
  const char* file = nullptr;
  const char* folder = nullptr;

  static TrustStore system() {
    const auto* curl = curl_version_info(CURLVERSION_NOW);
    std::error_code failed;
    if (curl->capath) {
      std::filesystem::directory_iterator entry(curl->capath, failed);
      for (; !failed && entry != std::filesystem::directory_iterator(); entry.increment(failed)) {
        if (entry->path().extension() == ".0") return {nullptr, curl->capath};
      }
    }
    return {curl->cainfo, nullptr};
  }
};

Code certificateError(long verifyResult) {
  // As X509_verify_cert counts them.
  switch (verifyResult) {
    case 9:
      return Code::serverCertificateNotYetValid;
    case 10:
      return Code::serverCertificateHasBadDate;
    case 2:   // the issuer isn't to be had
    case 18:  // self-signed
    case 19:  // a self-signed one in the chain
    case 20:  // the issuer isn't to be had here
    case 21:  // the only one, and not to be verified
      return Code::serverCertificateHasUnknownRoot;
    default:
      return Code::serverCertificateUntrusted;
  }
}

// What curl's refusals are to us; the rest is a connection lost.
constexpr std::array<std::pair<CURLcode, Code>, 22> codes{{
    {CURLE_URL_MALFORMAT, Code::badURL},
    {CURLE_OPERATION_TIMEDOUT, Code::timedOut},
    {CURLE_COULDNT_RESOLVE_HOST, Code::cannotFindHost},
    {CURLE_COULDNT_RESOLVE_PROXY, Code::cannotFindHost},
    {CURLE_COULDNT_CONNECT, Code::cannotConnectToHost},
    {CURLE_PROXY, Code::cannotConnectToHost},
    {CURLE_TOO_MANY_REDIRECTS, Code::httpTooManyRedirects},
    {CURLE_UNSUPPORTED_PROTOCOL, Code::insecureConnection},
    {CURLE_WEIRD_SERVER_REPLY, Code::cannotParseResponse},
    {CURLE_BAD_CONTENT_ENCODING, Code::cannotParseResponse},
    {CURLE_WRITE_ERROR, Code::cannotParseResponse},  // bytes behind what is compressed
    {CURLE_FILESIZE_EXCEEDED, Code::dataLengthExceedsMaximum},
    {CURLE_OUT_OF_MEMORY, Code::dataLengthExceedsMaximum},  // also a header without an end
    {CURLE_SSL_CONNECT_ERROR, Code::secureConnectionFailed},
    {CURLE_SSL_CIPHER, Code::secureConnectionFailed},
    {CURLE_SSL_CACERT_BADFILE, Code::secureConnectionFailed},
    {CURLE_SSL_CERTPROBLEM, Code::secureConnectionFailed},
    {CURLE_SSL_ENGINE_NOTFOUND, Code::secureConnectionFailed},
    {CURLE_SSL_ENGINE_SETFAILED, Code::secureConnectionFailed},
    {CURLE_SSL_ENGINE_INITFAILED, Code::secureConnectionFailed},
    {CURLE_SSL_INVALIDCERTSTATUS, Code::serverCertificateUntrusted},
    {CURLE_SSL_ISSUER_ERROR, Code::serverCertificateHasUnknownRoot},
}};

template <class T>
T info(CURL* easy, CURLINFO which) {
  T value{};
  curl_easy_getinfo(easy, which, &value);
  return value;
}

Code errorCode(CURL* easy, CURLcode code) {
  if (code == CURLE_PEER_FAILED_VERIFICATION) {
    return certificateError(info<long>(easy, CURLINFO_SSL_VERIFYRESULT));
  }
  if (code == CURLE_COULDNT_CONNECT) {
    const auto systemError = info<long>(easy, CURLINFO_OS_ERRNO);
    if (systemError == ENETUNREACH || systemError == ENETDOWN) return Code::notConnectedToInternet;
  }
  if (code == CURLE_UNSUPPORTED_PROTOCOL &&
      std::string_view(info<const char*>(easy, CURLINFO_EFFECTIVE_URL)).starts_with("https:")) {
    return Code::cannotParseResponse;  // HTTP/0.9: bytes without a status line
  }
  const auto row = std::ranges::find(codes, code, &std::pair<CURLcode, Code>::first);
  return row == codes.end() ? Code::networkConnectionLost : row->second;
}

// Sets a handle's options one by one, and remembers whether curl took them all.
struct Options {
  explicit Options(CURL* handle) : easy(handle), accepted(handle) {}

  template <class T>
  void set(CURLoption option, T value) {
    accepted = accepted && curl_easy_setopt(easy, option, value) == CURLE_OK;
  }

  CURL* const easy;
  bool accepted;
};

// What curl takes for a reply, though HTTP doesn't: half a head, and lengths that contradict each
// other.
CURLcode doubt(const Transfer& transfer) {
  if (!transfer.headEnded) return CURLE_PARTIAL_FILE;
  std::string_view length;
  curl_header* header = nullptr;
  for (std::size_t i = 0;
       curl_easy_header(transfer.easy, "Content-Length", i, CURLH_HEADER, -1, &header) == CURLHE_OK;
       ++i) {
    if (i > 0 && length != header->value) return CURLE_WEIRD_SERVER_REPLY;
    length = header->value;
  }
  return length.find(',') == length.npos ? CURLE_OK : CURLE_WEIRD_SERVER_REPLY;
}

void restartTimer(Transfer& transfer) {
  transfer.deadline = Clock::now() + transfer.request.timeout;
}

// Has the transfer's connection closed when the transfer ends. Over HTTP/2 it would be kept, silent
// or busy as it is, and the next request would wait in vain, too.
void distrust(const Transfer& transfer) {
  curl_easy_setopt(transfer.easy, CURLOPT_FORBID_REUSE, 1L);
}

// Nothing is taken of what is too much, and curl stops.
std::size_t refuse(Transfer& transfer) {
  transfer.isTooLarge = true;
  distrust(transfer);
  return 0;
}

std::size_t takeHeader(char* bytes, std::size_t size, std::size_t count, void* context) {
  auto& transfer = *static_cast<Transfer*>(context);
  const std::string_view line(bytes, size * count);
  restartTimer(transfer);
  const bool isEnd = line == "\r\n" || line == "\n";
  transfer.headEnded = isEnd || (transfer.headEnded && !line.starts_with("HTTP/"));
  transfer.headSize += line.size();
  return transfer.headSize <= maximumHead ? line.size() : refuse(transfer);
}

std::size_t takeBody(char* bytes, std::size_t size, std::size_t count, void* context) {
  auto& transfer = *static_cast<Transfer*>(context);
  std::string& body = transfer.response.body;
  if (body.size() + size * count > maximumSize) return refuse(transfer);
  try {
    body.append(bytes, size * count);
  } catch (const std::bad_alloc&) {
    return refuse(transfer);  // too large for this machine; curl, which is C, is to hear of it
  }
  return size * count;
}

// Sees what comes before it's decompressed, and also what is dropped, as before a redirect.
int takeProgress(void* context, curl_off_t, curl_off_t received, curl_off_t, curl_off_t) {
  auto& transfer = *static_cast<Transfer*>(context);
  if (received != std::exchange(transfer.received, received)) restartTimer(transfer);
  if (received <= curl_off_t{maximumSize}) return 0;
  refuse(transfer);
  return 1;
}

// As curl would, but not for the programs that the host starts.
curl_socket_t openSocket(void*, curlsocktype, curl_sockaddr* address) {
  return socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

int countSending(void* context, char*, char*, int, int) {
  ++static_cast<Transfer*>(context)->sendings;
  return CURL_PREREQFUNC_OK;
}

// Those of the process's sockets that lead nowhere else.
std::vector<int> localSockets() {
  std::vector<int> sockets;
  std::error_code failed;
  std::filesystem::directory_iterator entry("/proc/self/fd", failed);
  for (; !failed && entry != std::filesystem::directory_iterator(); entry.increment(failed)) {
    const int fd = std::stoi(entry->path().filename());
    int domain = 0;
    socklen_t size = sizeof domain;
    getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &size);
    if (domain == AF_UNIX) sockets.push_back(fd);
  }
  return sockets;
}

// A multi handle. With it curl opens a pair of sockets that it tells nobody of, and that the
// programs that the host starts would inherit.
CURLM* createMulti() {
  const std::vector<int> before = localSockets();
  CURLM* multi = curl_multi_init();
  for (const int fd : localSockets()) {
    if (std::ranges::find(before, fd) == before.end()) fcntl(fd, F_SETFD, FD_CLOEXEC);
  }
  return multi;
}

class Network {
 public:
  // Never destroyed: its thread works on while the process exits.
  static Network& shared() {
    static Network& instance = *new Network;
    return instance;
  }

  void submit(Transfer& transfer) {
    std::unique_lock lock(mutex_);
    if (!running_) running_ = start();
    if (!running_) {
      lock.unlock();
      return transfer.finish(
          URLError(Code::cannotConnectToHost, "the network could not be set up"));
    }
    submitted_.push_back(&transfer);
    const bool isFirst = submitted_.size() == 1;  // else the thread is being woken
    lock.unlock();
    if (isFirst) eventfd_write(wakeup_, 1);
  }

  void route(std::string host, URLSession::Route route) {
    const std::scoped_lock lock(mutex_);
    routes_.insert_or_assign(std::move(host), std::move(route));
  }

 private:
  bool start() {
    // Else the TLS library would take itself down at exit, perhaps before our own threads are told
    // to stop.
    OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
    if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) return false;
    if (wakeup_ < 0) wakeup_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (wakeup_ < 0) return false;
    if (!multi_) multi_ = createMulti();
    if (!share_) share_ = curl_share_init();
    if (!multi_ || !share_) return false;
    // No two requests share a connection, also over HTTP/2: where one server of several doesn't
    // know it, curl would join a request to one under HTTP/1.1, and each might get the other's
    // reply.
    curl_multi_setopt(multi_, CURLMOPT_PIPELINING, long{CURLPIPE_NOTHING});
    curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_COOKIE);
    curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
    trust_ = TrustStore::system();
    return startThread(
        "quorva-network", [] { shared().run(); }, [] { stopWork(shared().atWork_); });
  }

  [[noreturn]] void run() {
    for (;;) {
      {
        const std::scoped_lock lock(atWork_);
        takeSubmitted();
        beginWaiting();
        int underWay = 0;
        curl_multi_perform(multi_, &underWay);
        int left = 0;
        while (const CURLMsg* message = curl_multi_info_read(multi_, &left)) {
          if (message->msg != CURLMSG_DONE) continue;
          end(*info<Transfer*>(message->easy_handle, CURLINFO_PRIVATE), message->data.result);
        }
        expire();
        if (beginWaiting()) continue;
      }
      const auto wait = std::chrono::ceil<std::chrono::milliseconds>(nextDeadline_ - Clock::now());
      curl_waitfd wakeup{wakeup_, CURL_WAIT_POLLIN, 0};
      curl_multi_poll(multi_, &wakeup, 1,
                      static_cast<int>(std::clamp<long>(wait.count(), 0, 60'000)), nullptr);
      eventfd_t ignored;
      if (wakeup.revents) eventfd_read(wakeup_, &ignored);
    }
  }

  void takeSubmitted() {
    const std::scoped_lock lock(mutex_);
    for (Transfer* transfer : std::exchange(submitted_, {})) {
      transfer->deadline = Clock::now() + transfer->request.timeout;
      nextDeadline_ = std::min(nextDeadline_, transfer->deadline);
      waiting_.push_back(transfer);
    }
  }

  // Begins as many as may be under way; whether there were any.
  bool beginWaiting() {
    bool hasBegun = false;
    for (; !waiting_.empty() && underWay_.size() < atOnce; hasBegun = true) {
      Transfer* const next = waiting_.front();
      waiting_.pop_front();
      begin(*next);
    }
    return hasBegun;
  }

  std::optional<URLSession::Route> routeTo(const std::string& host) {
    const std::scoped_lock lock(mutex_);
    const auto found = routes_.find(host);
    return found == routes_.end() ? std::nullopt : std::optional(found->second);
  }

  void begin(Transfer& transfer) {
    transfer.easy = takeHandle();
    if (!configure(transfer) || curl_multi_add_handle(multi_, transfer.easy) != CURLM_OK) {
      curl_easy_cleanup(std::exchange(transfer.easy, nullptr));
      return transfer.finish(
          URLError(Code::cannotConnectToHost, "the request could not be set up"));
    }
    underWay_.push_back(&transfer);
  }

  // A handle with all that is the same for each transfer; null if there is none to be had.
  CURL* takeHandle() {
    if (!idle_.empty()) {
      CURL* easy = idle_.back();
      idle_.pop_back();
      return easy;
    }
    Options options(curl_easy_init());
    options.set(CURLOPT_PROTOCOLS_STR, "https");
    options.set(CURLOPT_REDIR_PROTOCOLS_STR, "https");
    options.set(CURLOPT_FOLLOWLOCATION, 1L);
    options.set(CURLOPT_MAXREDIRS, maximumRedirects);
    options.set(CURLOPT_MAXFILESIZE_LARGE, curl_off_t{maximumSize});
    options.set(CURLOPT_HTTP_VERSION, long{CURL_HTTP_VERSION_2TLS});
    options.set(CURLOPT_SSLVERSION, long{CURL_SSLVERSION_TLSv1_2});
    options.set(CURLOPT_SHARE, share_);
    options.set(CURLOPT_COOKIEFILE, "");  // cookies, and in memory
    options.set(CURLOPT_USERAGENT, curl_version_info(CURLVERSION_NOW)->version);
    options.set(CURLOPT_ACCEPT_ENCODING, "");  // all that curl can undo
    options.set(CURLOPT_NOSIGNAL, 1L);
    options.set(CURLOPT_QUICK_EXIT, 1L);  // a name being looked up holds nobody up
    options.set(CURLOPT_OPENSOCKETFUNCTION, openSocket);
    options.set(CURLOPT_PREREQFUNCTION, countSending);
    options.set(CURLOPT_HEADERFUNCTION, takeHeader);
    options.set(CURLOPT_WRITEFUNCTION, takeBody);
    options.set(CURLOPT_XFERINFOFUNCTION, takeProgress);
    options.set(CURLOPT_NOPROGRESS, 0L);
    options.set(CURLOPT_POST, 1L);
    if (options.accepted) return options.easy;
    curl_easy_cleanup(options.easy);
    return nullptr;
  }

  bool configure(Transfer& transfer) {
    const URLRequest& request = transfer.request;
    Options options(transfer.easy);
    const auto append = [&](Headers& list, const std::string& line) {
      curl_slist* longer = curl_slist_append(list.get(), line.c_str());
      options.accepted = options.accepted && longer;
      static_cast<void>(list.release());
      list.reset(longer);
    };
    for (const auto& header : request.headers) append(transfer.headers, header);
    append(transfer.headers, "Expect:");  // a large body goes out at once, without asking first
    const std::string host = request.url.host();
    const auto routed = routeTo(host);
    if (routed) append(transfer.connectTo, host + "::127.0.0.1:" + std::to_string(routed->port));

    options.set(CURLOPT_ERRORBUFFER, transfer.message.data());
    options.set(CURLOPT_URL, request.url.absoluteString().c_str());
    options.set(CURLOPT_HTTPHEADER, transfer.headers.get());
    options.set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
    options.set(CURLOPT_POSTFIELDS, request.body.data());
    options.set(CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(request.timeout.count()));
    options.set(CURLOPT_CONNECT_TO, transfer.connectTo.get());
    options.set(CURLOPT_NOPROXY, routed ? "*" : nullptr);
    options.set(CURLOPT_CAINFO, routed ? routed->certificateAuthority.c_str() : trust_.file);
    options.set(CURLOPT_CAPATH, routed ? nullptr : trust_.folder);
    options.set(CURLOPT_PREREQDATA, &transfer);
    options.set(CURLOPT_HEADERDATA, &transfer);
    options.set(CURLOPT_WRITEDATA, &transfer);
    options.set(CURLOPT_XFERINFODATA, &transfer);
    options.set(CURLOPT_PRIVATE, &transfer);
    return options.accepted;
  }

  void end(Transfer& transfer, CURLcode code) {
    const auto status = info<long>(transfer.easy, CURLINFO_RESPONSE_CODE);
    transfer.response.statusCode = static_cast<int>(status);
    if (code == CURLE_OK) code = doubt(transfer);
    if (code == CURLE_RECV_ERROR && transfer.headEnded &&
        !info<long>(transfer.easy, CURLINFO_OS_ERRNO))
      code = CURLE_WEIRD_SERVER_REPLY;  // the system had no part in it: chunks that are none
    if (transfer.isTooLarge) {
      code = CURLE_FILESIZE_EXCEEDED;
      transfer.message.front() = 0;  // which only says that we refused
    }
    // To curl any 1xx announces a reply, and it fails when none follows. One that HTTP doesn't know
    // was the reply.
    const bool answered = code == CURLE_OK || (status > 103 && status < 200);
    std::string cause =
        transfer.message.front() ? transfer.message.data() : curl_easy_strerror(code);
    const Code error = answered ? Code() : errorCode(transfer.easy, code);
    transfer.wentSmoothly = code == CURLE_OK;
    release(transfer);
    if (answered) return transfer.finish(std::move(transfer.response));
    transfer.finish(URLError(error, std::move(cause)));
  }

  // Ends what has been silent for too long.
  void expire() {
    const auto now = Clock::now();
    if (now < nextDeadline_) return;
    const auto isSilent = [&](const Transfer* transfer) { return transfer->deadline <= now; };
    std::vector<Transfer*> silent;
    std::ranges::copy_if(waiting_, std::back_inserter(silent), isSilent);
    std::ranges::copy_if(underWay_, std::back_inserter(silent), isSilent);
    std::erase_if(waiting_, isSilent);
    for (Transfer* transfer : silent) {
      if (transfer->easy) {
        distrust(*transfer);
        release(*transfer);
      }
      transfer->finish(URLError(Code::timedOut, "no byte arrived in time"));
    }
    nextDeadline_ = Clock::time_point::max();
    for (const Transfer* transfer : waiting_)
      nextDeadline_ = std::min(nextDeadline_, transfer->deadline);
    for (const Transfer* transfer : underWay_)
      nextDeadline_ = std::min(nextDeadline_, transfer->deadline);
  }

  void release(Transfer& transfer) {
    std::erase(underWay_, &transfer);
    CURL* easy = std::exchange(transfer.easy, nullptr);
    curl_multi_remove_handle(multi_, easy);
    // A handle remembers a system's error, and counts the stale connections that it has met in all
    // its transfers, to give up at the sixth.
    if (!transfer.wentSmoothly || info<long>(easy, CURLINFO_OS_ERRNO) || transfer.sendings > 1)
      return curl_easy_cleanup(easy);
    idle_.push_back(easy);
  }

  std::mutex mutex_;
  // Guarded by mutex_:
  bool running_ = false;
  std::vector<Transfer*> submitted_;
  std::map<std::string, URLSession::Route> routes_;

  WorkLock atWork_;  // held while curl is at work; taken for good at exit

  // Constant once the thread runs:
  int wakeup_ = -1;  // our own, since curl does without where it has no descriptor for it
  CURLM* multi_ = nullptr;
  CURLSH* share_ = nullptr;
  TrustStore trust_;

  // The network thread's:
  std::deque<Transfer*> waiting_;
  std::vector<Transfer*> underWay_;
  std::vector<CURL*> idle_;                                    // handles between transfers
  Clock::time_point nextDeadline_ = Clock::time_point::max();  // of all the first, or earlier
};

void Transfer::await_suspend(std::coroutine_handle<> coroutine) {
  awaiting = coroutine;
  Network::shared().submit(*this);
}

}  // namespace

Task<HTTPResponse, GeneralExecutor> URLSession::post(URLRequest request) {
  Transfer transfer(std::move(request));
  co_return co_await transfer;
}

void URLSession::route(std::string host, Route route) {
  Network::shared().route(std::move(host), std::move(route));
}

}  // namespace quorva::platform
