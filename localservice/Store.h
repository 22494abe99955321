// What the local service remembers, in a SQLite file: the devices it gave an id to and the links
// they created.
//
// Any thread: calls take turns. What a call changed is on the disk when it returns. A file that
// can't be opened, read or written throws std::runtime_error with one readable line.

#pragma once

#include <sqlite3.h>

#include <filesystem>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

namespace localservice {

struct Device {
  std::string id;
  std::string apiKey;
  std::string description;  // JSON
};

struct Link {
  std::string domain;
  std::string path;
  std::string deviceId;
  std::string description;  // JSON
};

class Store {
 public:
  /// Opens `file`, made if there is none.
  explicit Store(const std::filesystem::path& file);

  void add(const Device& device);

  /// Notes that the device was seen now; false if there is none of this id and key.
  [[nodiscard]] bool touch(const std::string& deviceId, const std::string& apiKey);

  /// False if the link's domain, in whichever case, has the path already.
  [[nodiscard]] bool add(const Link& link);

 private:
  bool change(std::string_view sql, std::initializer_list<std::string_view> values);
  void require(int result) const;

  std::string file_;
  std::mutex mutex_;
  std::unique_ptr<sqlite3, decltype(&sqlite3_close)> database_{nullptr, sqlite3_close};
};

}  // namespace localservice
