#include "platform/UserDefaults.h"

#include <fcntl.h>
#include <pwd.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <map>
#include <mutex>

#include "platform/Bundle.h"

namespace quorva::platform {
namespace {

namespace fs = std::filesystem;

constexpr int busyMilliseconds = 2000;  // how long another process may keep this one waiting

constexpr const char* schema =
    "PRAGMA journal_mode = WAL;"
    "PRAGMA synchronous = NORMAL;"
    "CREATE TABLE IF NOT EXISTS settings (key TEXT NOT NULL PRIMARY KEY, value NOT NULL) WITHOUT "
    "ROWID;";

struct Close {
  void operator()(sqlite3* database) const { sqlite3_close(database); }
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Database = std::unique_ptr<sqlite3, Close>;
using Statement = std::unique_ptr<sqlite3_stmt, Close>;

bool isDamage(int code) {
  return code == SQLITE_CORRUPT || code == SQLITE_NOTADB;
}

// A file name that holds `text`, whatever is in it.
std::string fileName(std::string_view text) {
  constexpr std::string_view digits = "0123456789abcdef";
  std::string name;
  for (const char c : text) {
    const auto code = static_cast<unsigned char>(c);
    const bool isPlain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                         (c >= '0' && c <= '9') || c == '.' || c == '-' || c == '_';
    isPlain ? name += c : name += {'%', digits[code >> 4], digits[code & 15]};
  }
  return name;
}

fs::path dataHome() {
  if (const char* given = std::getenv("XDG_DATA_HOME"); given && fs::path(given).is_absolute()) {
    return given;
  }
  const char* home = std::getenv("HOME");
  if (!home || !*home) {
    const passwd* user = getpwuid(getuid());
    home = user ? user->pw_dir : "/nonexistent";
  }
  return fs::path(home) / ".local" / "share";
}

}  // namespace

class UserDefaults::Store {
 public:
  explicit Store(fs::path file) : file_(std::move(file)) { openOrReplace(false); }

  std::optional<Value> read(std::string_view key) {
    const std::scoped_lock lock(mutex_);
    if (const auto kept = unwritten_.find(key); kept != unwritten_.end()) return kept->second;
    std::optional<Value> value;
    perform([&] {
      const int code = step(get_, key);
      if (code == SQLITE_ROW) value = column(get_.get());
      return code;
    });
    return value;
  }

  void write(std::string_view key, std::optional<Value> value) {
    const std::scoped_lock lock(mutex_);
    unwritten_.insert_or_assign(std::string(key), std::move(value));
    // With it goes what could not be written before.
    std::erase_if(unwritten_,
                  [&](const auto& entry) { return put(entry.first, entry.second) == SQLITE_DONE; });
  }

 private:
  int put(const std::string& key, const std::optional<Value>& value) {
    return perform([&] {
      if (!value) return step(remove_, key);
      if (const auto* text = std::get_if<std::string>(&*value)) {
        sqlite3_bind_text64(put_.get(), 2, text->data(), text->size(), SQLITE_STATIC, SQLITE_UTF8);
      } else {
        sqlite3_bind_int(put_.get(), 2, std::get<bool>(*value));
      }
      return step(put_, key);
    });
  }

  // Makes the file, for its mode. Only where there is none: closing a descriptor of an open
  // database would drop its locks.
  void create() const {
    const int file = ::open(file_.c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, 0600);
    if (file >= 0) close(file);
  }

  // Opens the file, or leaves it closed and says why.
  int open() {
    sqlite3* opened = nullptr;
    int code = sqlite3_open_v2(file_.c_str(), &opened, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX,
                               nullptr);
    database_.reset(opened);
    if (code == SQLITE_OK) code = sqlite3_busy_timeout(opened, busyMilliseconds);
    if (code == SQLITE_OK) code = sqlite3_exec(opened, schema, nullptr, nullptr, nullptr);
    const auto prepare = [&](Statement& statement, const char* sql) {
      sqlite3_stmt* prepared = nullptr;
      if (code == SQLITE_OK) {
        code = sqlite3_prepare_v3(opened, sql, -1, SQLITE_PREPARE_PERSISTENT, &prepared, nullptr);
      }
      statement.reset(prepared);
    };
    prepare(get_, "SELECT value FROM settings WHERE key = ?1");
    prepare(put_,
            "INSERT INTO settings VALUES (?1, ?2) ON CONFLICT (key) DO UPDATE SET value = ?2");
    prepare(remove_, "DELETE FROM settings WHERE key = ?1");
    if (code != SQLITE_OK) shut();
    return code;
  }

  void shut() {
    get_.reset();
    put_.reset();
    remove_.reset();
    database_.reset();
  }

  bool isSound() {
    return sqlite3_exec(
               database_.get(), "PRAGMA quick_check",
               [](void*, int, char** text, char**) {
                 return std::string_view(text[0]) == "ok" ? 0 : 1;
               },
               nullptr, nullptr) == SQLITE_OK;
  }

  // Opens the file, or a new one in its place if it's damaged, which a `suspect` file is searched
  // for. One process at a time: several may come at once to a file that is new, or find the same
  // damage.
  void openOrReplace(bool suspect) {
    shut();
    std::error_code refused;
    fs::create_directories(file_.parent_path().parent_path(), refused);
    mkdir(file_.parent_path().c_str(), 0700);
    const int directory = ::open(file_.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (int waited = 0; flock(directory, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK &&
                         waited < busyMilliseconds;) {
      waited += sqlite3_sleep(10);
    }
    create();
    if (isDamage(open()) || (suspect && database_ && !isSound())) {
      shut();
      for (const char* suffix : {"", "-wal", "-shm"}) {
        const std::string name = file_.string();
        std::rename((name + suffix).c_str(), (name + ".damaged" + suffix).c_str());
      }
      create();
      open();
    }
    close(directory);
  }

  // Runs `operation` on the file, which is tried again if it could not be opened, and a second time
  // if it finds damage.
  template <class Operation>
  int perform(Operation operation) {
    if (!database_) openOrReplace(false);
    if (!database_) return SQLITE_CANTOPEN;
    const int code = operation();
    if (!isDamage(code)) return code;
    openOrReplace(true);
    return database_ ? operation() : SQLITE_CANTOPEN;
  }

  int step(const Statement& statement, std::string_view key) {
    sqlite3_bind_text64(statement.get(), 1, key.data(), key.size(), SQLITE_STATIC, SQLITE_UTF8);
    const int code = sqlite3_step(statement.get());
    // A row stays readable until the statement is run again.
    if (code != SQLITE_ROW) sqlite3_reset(statement.get());
    return code;
  }

  static std::optional<Value> column(sqlite3_stmt* row) {
    std::optional<Value> value;
    if (sqlite3_column_type(row, 0) == SQLITE_TEXT) {
      const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(row, 0));
      value = std::string(text, static_cast<std::size_t>(sqlite3_column_bytes(row, 0)));
    } else if (sqlite3_column_type(row, 0) == SQLITE_INTEGER) {
      value = sqlite3_column_int(row, 0) != 0;
    }
    sqlite3_reset(row);
    return value;
  }

  const fs::path file_;

  std::mutex mutex_;
  // Guarded by mutex_:
  Database database_;
  Statement get_;
  Statement put_;
  Statement remove_;
  std::map<std::string, std::optional<Value>, std::less<>>
      unwritten_;  // what the file could not take
};

UserDefaults::UserDefaults(fs::path file) : store_(std::make_unique<Store>(std::move(file))) {}

UserDefaults::~UserDefaults() = default;

UserDefaults& UserDefaults::standard() {
  // Never destroyed: other threads may still read while the process exits.
  static UserDefaults& instance = *new UserDefaults(
      dataHome() / "quorva" /
      (fileName(Bundle::main().identifier.value_or(executableName())) + ".sqlite"));
  return instance;
}

std::optional<UserDefaults::Value> UserDefaults::read(std::string_view key) {
  return store_->read(key);
}

void UserDefaults::set(std::string_view key, std::optional<Value> value) {
  store_->write(key, std::move(value));
}

}  // namespace quorva::platform
