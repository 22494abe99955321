#include "localservice/Store.h"

#include <iterator>
#include <stdexcept>
#include <utility>

namespace localservice {
namespace {

constexpr const char* setUp = R"(
  PRAGMA foreign_keys = ON;
  PRAGMA journal_mode = WAL;
  PRAGMA synchronous = NORMAL;
)";

// What makes each version of the file of the one before; the first is also that of files without a
// number.
constexpr const char* versions[] = {R"(
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
  CREATE TABLE IF NOT EXISTS tap(
    id INTEGER PRIMARY KEY,
    domain TEXT NOT NULL COLLATE NOCASE,
    path TEXT NOT NULL,
    url TEXT NOT NULL,
    address TEXT NOT NULL,
    device TEXT REFERENCES device,
    created INTEGER NOT NULL DEFAULT (unixepoch()),
    FOREIGN KEY(domain, path) REFERENCES link
  );
)",
                                    R"(
  ALTER TABLE device ADD COLUMN first_seen INTEGER;  -- null once it's forgotten
  ALTER TABLE device ADD COLUMN pings INTEGER NOT NULL DEFAULT 0;
  UPDATE device SET first_seen = last_seen;
  CREATE TABLE request(number INTEGER PRIMARY KEY AUTOINCREMENT, description TEXT NOT NULL);
)",
                                    "CREATE INDEX tapsOfLink ON tap(domain, path);"};

constexpr int busyMilliseconds = 5000;

}  // namespace

Store::Store(const std::filesystem::path& file) : file_(file.string()) {
  sqlite3* database = nullptr;
  const int opened = sqlite3_open(file_.c_str(), &database);
  database_.reset(database);
  require(opened);
  require(sqlite3_busy_timeout(database, busyMilliseconds));
  // Only now SQLite reads the file and finds out whether it's a database.
  require(sqlite3_exec(database, setUp, nullptr, nullptr, nullptr));
  upgrade();
}

void Store::upgrade() {
  const auto execute = [&](const std::string& sql) {
    require(sqlite3_exec(database_.get(), sql.c_str(), nullptr, nullptr, nullptr));
  };
  execute("BEGIN IMMEDIATE");
  const auto version = static_cast<std::size_t>(std::stoi(run("PRAGMA user_version", {})[0][0]));
  if (version > std::size(versions)) {
    throw std::runtime_error(file_ + " is of a later version of this program");
  }
  for (std::size_t i = version; i < std::size(versions); ++i) execute(versions[i]);
  execute("PRAGMA user_version = " + std::to_string(std::size(versions)));
  execute("COMMIT");
}

void Store::add(const Device& device) {
  run("INSERT INTO device(id, api_key, description, first_seen) VALUES(?, ?, ?, unixepoch())",
      {device.id, device.apiKey, device.description});
}

bool Store::touch(const std::string& deviceId, const std::string& apiKey) {
  return !run("UPDATE device SET last_seen = unixepoch(), first_seen = ifnull(first_seen, "
              "unixepoch()) "
              "WHERE id = ? AND api_key = ? RETURNING id",
              {deviceId, apiKey})
              .empty();
}

void Store::addPing(const std::string& deviceId) {
  run("UPDATE device SET pings = pings + 1 WHERE id = ?", {deviceId});
}

std::vector<Device> Store::devices() {
  std::vector<Device> devices;
  for (Row& row :
       run("SELECT id, api_key, description,"
           "  strftime('%Y-%m-%dT%H:%M:%SZ', first_seen, 'unixepoch'),"
           "  strftime('%Y-%m-%dT%H:%M:%SZ', last_seen, 'unixepoch'), pings "
           "FROM device WHERE first_seen IS NOT NULL ORDER BY last_seen DESC, rowid DESC",
           {})) {
    devices.push_back({std::move(row[0]), std::move(row[1]), std::move(row[2]), std::move(row[3]),
                       std::move(row[4]), std::stoi(row[5])});
  }
  return devices;
}

bool Store::forget(const std::string& deviceId) {
  return !run("UPDATE device SET first_seen = NULL, pings = 0 "
              "WHERE id = ? AND first_seen IS NOT NULL RETURNING id",
              {deviceId})
              .empty();
}

bool Store::add(const Link& link) {
  return !run("INSERT INTO link(domain, path, device, description) VALUES(?, ?, ?, ?) "
              "ON CONFLICT(domain, path) DO NOTHING RETURNING path",
              {link.domain, link.path, link.deviceId, link.description})
              .empty();
}

std::optional<Link> Store::findLink(const std::string& domain, const std::string& path) {
  const auto rows =
      run("SELECT domain, path, device, description FROM link WHERE domain = ? AND path = ?",
          {domain, path});
  if (rows.empty()) return std::nullopt;
  return Link{rows[0][0], rows[0][1], rows[0][2], rows[0][3]};
}

std::vector<Link> Store::links() {
  std::vector<Link> links;
  for (Row& row : run("SELECT domain, path, device, description,"
                      "  strftime('%Y-%m-%dT%H:%M:%SZ', created, 'unixepoch'),"
                      "  (SELECT count(*) FROM tap"
                      "   WHERE tap.domain = link.domain AND tap.path = link.path) "
                      "FROM link ORDER BY created DESC, rowid DESC",
                      {})) {
    links.push_back({std::move(row[0]), std::move(row[1]), std::move(row[2]), std::move(row[3]),
                     std::move(row[4]), std::stoi(row[5])});
  }
  return links;
}

void Store::add(const Tap& tap) {
  run("INSERT INTO tap(domain, path, url, address) VALUES(?, ?, ?, ?)",
      {tap.domain, tap.path, tap.url, tap.address});
}

std::optional<Tap> Store::claimTap(const std::string& address, const std::string& deviceId) {
  const auto rows =
      run("UPDATE tap SET device = ? WHERE id = ("
          "  SELECT max(id) FROM tap"
          "  WHERE address = ? AND device IS NULL AND created > unixepoch() - 3600"
          ") RETURNING domain, path, url, address",
          {deviceId, address});
  if (rows.empty()) return std::nullopt;
  return Tap{rows[0][0], rows[0][1], rows[0][2], rows[0][3]};
}

void Store::addRequest(const std::string& description) {
  run("INSERT INTO request(description) VALUES(?)", {description});
  run("DELETE FROM request WHERE number <= (SELECT max(number) FROM request) - ?",
      {std::to_string(requestsKept)});
}

std::vector<Store::NumberedRequest> Store::requestsAfter(const std::string& number,
                                                         std::size_t most) {
  std::vector<NumberedRequest> requests;
  for (Row& row : run("SELECT number, description FROM request "
                      "WHERE number > iif(CAST(?1 AS INTEGER) > (SELECT max(number) FROM request),"
                      "  0, CAST(?1 AS INTEGER)) ORDER BY number LIMIT CAST(?2 AS INTEGER)",
                      {number, std::to_string(most)})) {
    requests.push_back({std::move(row[0]), std::move(row[1])});
  }
  return requests;
}

// What the statement gives, all of it text.
std::vector<Store::Row> Store::run(std::string_view sql,
                                   std::initializer_list<std::string_view> values) {
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
  std::vector<Row> rows;
  while (sqlite3_step(prepared) == SQLITE_ROW) {
    Row& row = rows.emplace_back();
    for (int column = 0; column < sqlite3_column_count(prepared); ++column) {
      const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(prepared, column));
      row.emplace_back(text, static_cast<std::size_t>(sqlite3_column_bytes(prepared, column)));
    }
  }
  require(sqlite3_reset(prepared));  // which tells of the step's failure, too
  return rows;
}

void Store::require(int result) const {
  if (result != SQLITE_OK) {
    throw std::runtime_error(file_ + ": " + sqlite3_errmsg(database_.get()));
  }
}

}  // namespace localservice
