// What the local service remembers, in a SQLite file: the devices it gave an id to, the links they
// created, where those were tapped, and the last requests. A file of an earlier version is brought
// up to date.
//
// Any thread: calls take turns. What a call changed outlives the process, however that ends. A file
// that can't be opened, read or written throws std::runtime_error with one readable line.

#pragma once

#include <sqlite3.h>

#include <cstddef>
#include <filesystem>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace localservice {

struct Device {
  std::string id;
  std::string apiKey;
  std::string description;  // JSON
  // Only of one that is stored; times are UTC, as 2000-01-01T00:00:00Z.
  std::string firstSeen{};
  std::string lastSeen{};
  int pings = 0;
};

struct Link {
  std::string domain;
  std::string path;
  std::string deviceId;
  std::string description;  // JSON
  // Only of one that is stored.
  std::string created{};
  int taps = 0;
};

struct Tap {
  std::string domain;  // as the link's
  std::string path;
  std::string url;      // as it was tapped
  std::string address;  // where from
};

class Store {
 public:
  /// Opens `file`, made if there is none.
  explicit Store(const std::filesystem::path& file);

  void add(const Device& device);

  /// Notes that the device was seen now, a forgotten one for the first time; false if there is none
  /// of this id and key.
  [[nodiscard]] bool touch(const std::string& deviceId, const std::string& apiKey);

  void addPing(const std::string& deviceId);

  /// Those that aren't forgotten, the one that was seen last first.
  [[nodiscard]] std::vector<Device> devices();

  /// Forgets that the device was ever seen; false if there is none. Its links stay.
  [[nodiscard]] bool forget(const std::string& deviceId);

  /// False if the link's domain, in whichever case, has the path already.
  [[nodiscard]] bool add(const Link& link);

  [[nodiscard]] std::optional<Link> findLink(const std::string& domain, const std::string& path);

  /// All links, the newest first.
  [[nodiscard]] std::vector<Link> links();

  /// Notes that the link was tapped now.
  void add(const Tap& tap);

  /// The newest tap from the address within the last hour that no device has claimed, which is the
  /// device's from now on.
  [[nodiscard]] std::optional<Tap> claimTap(const std::string& address,
                                            const std::string& deviceId);

  static constexpr std::size_t requestsKept = 1000;
  /// Keeps what a request was, as JSON, while it's one of the last.
  void addRequest(const std::string& description);

  struct NumberedRequest {
    std::string number;  // grows with each, also over restarts
    std::string description;
  };
  /// The requests after the one with that number, oldest first, and not more than `most`; all that
  /// are kept come after "0", and after a number that isn't reached yet: it is another file's.
  [[nodiscard]] std::vector<NumberedRequest> requestsAfter(const std::string& number,
                                                           std::size_t most);

 private:
  using Row = std::vector<std::string>;
  void upgrade();
  std::vector<Row> run(std::string_view sql, std::initializer_list<std::string_view> values);
  void require(int result) const;

  std::string file_;
  std::mutex mutex_;
  std::unique_ptr<sqlite3, decltype(&sqlite3_close)> database_{nullptr, sqlite3_close};
};

}  // namespace localservice
