#include "localservice/Store.h"

#include <stdexcept>

namespace localservice {
namespace {

constexpr const char* kSetUp = R"(
  PRAGMA foreign_keys = ON;
  CREATE TABLE IF NOT EXISTS device(
    id TEXT PRIMARY KEY,
    api_key TEXT NOT NULL,
    description TEXT NOT NULL,
    last_seen INTEGER NOT NULL DEFAULT (unixepoch())
  );
  CREATE TABLE IF NOT EXISTS link(
    domain TEXT NOT NULL COLLATE NOCASE,
    path TEXT NOT NULL,
    device TEXT NOT NULL REFERENCES device,
    description TEXT NOT NULL,
    created INTEGER NOT NULL DEFAULT (unixepoch()),
    PRIMARY KEY(domain, path)
  );
)";

constexpr int kBusyMilliseconds = 5000;

}  // namespace

Store::Store(const std::filesystem::path& file) : file_(file.string()) {
  sqlite3* database = nullptr;
  const int opened = sqlite3_open(file_.c_str(), &database);
  database_.reset(database);
  require(opened);
  require(sqlite3_busy_timeout(database, kBusyMilliseconds));
  // Only now SQLite reads the file and finds out whether it's a database.
  require(sqlite3_exec(database, kSetUp, nullptr, nullptr, nullptr));
}

void Store::add(const Device& device) {
  change("INSERT INTO device(id, api_key, description) VALUES(?, ?, ?)",
         {device.id, device.apiKey, device.description});
}

bool Store::touch(const std::string& deviceId, const std::string& apiKey) {
  return change("UPDATE device SET last_seen = unixepoch() WHERE id = ? AND api_key = ?",
                {deviceId, apiKey});
}

bool Store::add(const Link& link) {
  return change(
      "INSERT INTO link(domain, path, device, description) VALUES(?, ?, ?, ?) "
      "ON CONFLICT(domain, path) DO NOTHING",
      {link.domain, link.path, link.deviceId, link.description});
}

// Whether the statement changed anything.
bool Store::change(std::string_view sql, std::initializer_list<std::string_view> values) {
  const std::scoped_lock turn(mutex_);
  sqlite3_stmt* prepared = nullptr;
  require(sqlite3_prepare_v2(database_.get(), sql.data(), static_cast<int>(sql.size()), &prepared,
                             nullptr));
  const std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)> statement(prepared,
                                                                             sqlite3_finalize);
  int position = 0;
  for (const std::string_view value : values) {
    require(sqlite3_bind_text64(prepared, ++position, value.data(), value.size(), SQLITE_STATIC,
                                SQLITE_UTF8));
  }
  sqlite3_step(prepared);
  require(sqlite3_reset(prepared));  // which tells of the step's failure, too
  return sqlite3_changes(database_.get()) > 0;
}

void Store::require(int result) const {
  if (result != SQLITE_OK) {
    throw std::runtime_error(file_ + ": " + sqlite3_errmsg(database_.get()));
  }
}

}  // namespace localservice
