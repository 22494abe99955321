#include "platform/UserDefaults.h"

#include <fcntl.h>
#include <pwd.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>

#include "platform/Bundle.h"

namespace quorva::platform {
namespace {

namespace fs = std::filesystem;

using Clock = std::chrono::steady_clock;

// How long an access waits for other processes, and how long if an earlier one waited in vain.
constexpr std::chrono::milliseconds patience(2000), patienceAgain(100);

// The file, its log of writes, and the log's index.
constexpr std::array<const char*, 3> suffixes = {"", "-wal", "-shm"};
constexpr std::size_t indexAt = 2;
constexpr off_t indexSize = 32768;  // at least, while it's open

// The two copies of the index's header, which are written after each transaction, by whichever
// process, and before the index is used for the next.
// Source: https://www.sqlite.org/walformat.html#the_wal_index_header
using IndexVersion = std::array<char, 96>;

// A new file isn't waited for until it's on the disk: without power it would be lost as its first
// values would, which aren't waited for either.
constexpr const char* schema =
    "PRAGMA synchronous = OFF;"
    "PRAGMA journal_mode = WAL;"
    "CREATE TABLE IF NOT EXISTS settings (key TEXT NOT NULL PRIMARY KEY, value NOT NULL) WITHOUT "
    "ROWID;"
    "PRAGMA synchronous = NORMAL;";

struct Close {
  void operator()(sqlite3* database) const { sqlite3_close(database); }
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Database = std::unique_ptr<sqlite3, Close>;
using Statement = std::unique_ptr<sqlite3_stmt, Close>;

bool isDamage(int code) {
  return code == SQLITE_CORRUPT || code == SQLITE_NOTADB;
}

// Whether the file is of a format that is yet to come, which to SQLite is none. Read through
// SQLite: closing a descriptor of an open database would drop its locks.
bool isOfTheFuture(sqlite3* database) {
  sqlite3_file* file = nullptr;
  sqlite3_file_control(database, nullptr, SQLITE_FCNTL_FILE_POINTER, &file);
  std::array<char, 20> header;
  return file->pMethods->xRead(file, header.data(), header.size(), 0) == SQLITE_OK &&
         std::memcmp(header.data(), "SQLite format 3", 16) == 0 && header[19] > 2;
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

// The directory that a variable of the environment names. A relative one doesn't count: it would be
// another with each start.
std::optional<fs::path> named(const char* variable) {
  const char* path = std::getenv(variable);
  return path && fs::path(path).is_absolute() ? std::optional<fs::path>(path) : std::nullopt;
}

// Where the user's data belongs; for a user without a home a place where not even root can make a
// file.
fs::path dataHome() {
  if (auto given = named("XDG_DATA_HOME")) return *std::move(given);
  auto home = named("HOME");
  if (!home) {
    std::array<char, 4096> text;
    passwd entry{};
    passwd* user = nullptr;
    getpwuid_r(getuid(), &entry, text.data(), text.size(), &user);
    if (user && fs::path(user->pw_dir).is_absolute()) home = user->pw_dir;
  }
  return home.value_or("/dev/null") / ".local" / "share";
}

}  // namespace

class UserDefaults::Store {
 public:
  explicit Store(fs::path file) : file_(std::move(file)) {}

  std::optional<Value> read(std::string_view key) {
    const std::scoped_lock lock(mutex_);
    beginAccess();
    if (const auto kept = unwritten_.find(key); kept != unwritten_.end()) return kept->second;
    std::optional<Value> value;
    perform([&] {
      const auto version = indexVersion();
      if (!version || version != version_) known_.clear();
      version_ = version;
      if (const auto known = known_.find(key); known != known_.end()) {
        value = known->second;
        return SQLITE_DONE;
      }
      const int code = step(get_, key);
      if (code == SQLITE_ROW) value = column(get_.get());
      if (code == SQLITE_ROW || code == SQLITE_DONE) known_.emplace(key, value);
      return code;
    });
    return value;
  }

  void write(std::string_view key, std::optional<Value> value) {
    const std::scoped_lock lock(mutex_);
    beginAccess();
    unwritten_.insert_or_assign(std::string(key), std::move(value));
    // With it goes what could not be written before.
    std::erase_if(unwritten_,
                  [&](const auto& entry) { return put(entry.first, entry.second) == SQLITE_DONE; });
  }

 private:
  using Values = std::map<std::string, std::optional<Value>, std::less<>>;

  void beginAccess() { deadline_ = Clock::now() + (unwritten_.empty() ? patience : patienceAgain); }

  // Waits for another process, as long as the access may.
  bool wait() const { return Clock::now() < deadline_ && sqlite3_sleep(1); }

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
    // Opening a device may never end, and SQLite would leave a journal beside it.
    if (std::error_code none; !fs::is_regular_file(file_, none)) return SQLITE_CANTOPEN;
    sqlite3* opened = nullptr;
    int code = sqlite3_open_v2(file_.c_str(), &opened, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX,
                               nullptr);
    database_.reset(opened);
    if (code == SQLITE_OK) {
      sqlite3_busy_handler(
          opened, [](void* store, int) -> int { return static_cast<Store*>(store)->wait(); }, this);
      code = sqlite3_exec(opened, schema, nullptr, nullptr, nullptr);
      if (code == SQLITE_NOTADB && isOfTheFuture(opened)) code = SQLITE_CANTOPEN;
    }
    const auto prepare = [&](Statement& statement, const char* sql) {
      sqlite3_stmt* prepared = nullptr;
      if (code == SQLITE_OK) {
        code = sqlite3_prepare_v3(opened, sql, -1, SQLITE_PREPARE_PERSISTENT, &prepared, nullptr);
      }
      statement.reset(prepared);
    };
    prepare(get_, "SELECT value FROM settings WHERE key = ?1");
    prepare(put_,
            "INSERT INTO settings (key, value) VALUES (?1, ?2)"
            " ON CONFLICT (key) DO UPDATE SET value = ?2");
    prepare(remove_, "DELETE FROM settings WHERE key = ?1");
    if (code != SQLITE_OK) shut();
    noteFiles();
    return code;
  }

  void shut() {
    known_.clear();
    get_.reset();
    put_.reset();
    remove_.reset();
    database_.reset();
  }

  // Notes which files are in the three places, and says whether they aren't those of last time.
  bool noteFiles() {
    bool changed = false;
    for (std::size_t i = 0; i < suffixes.size(); ++i) {
      const std::string name = file_.string() + suffixes[i];
      struct stat found {};
      // Open files work on where their folder may no longer be searched.
      if (stat(name.c_str(), &found) != 0 && errno == EACCES) continue;
      const std::pair file(found.st_dev, found.st_ino);
      changed |= std::exchange(files_[i], file) != file;
      // To touch what was cut off the index, which is mapped, would kill the process.
      if (i == indexAt && found.st_size < indexSize)
        changed |= truncate(name.c_str(), indexSize) == 0;
    }
    return changed;
  }

  bool isDamaged() {
    const int code = sqlite3_exec(
        database_.get(), "PRAGMA quick_check",
        [](void*, int, char** text, char**) {
          return std::string_view(text[0]) == "ok" ? SQLITE_OK : SQLITE_ERROR;
        },
        nullptr, nullptr);
    return code == SQLITE_ABORT || isDamage(code);
  }

  // Opens the file, or a new one in its place if it's damaged, which a `suspect` file is searched
  // for. One process at a time: several may come at once to a file that is new, or find the same
  // damage. Whom another keeps waiting for too long only opens.
  int openOrReplace(bool suspect) {
    shut();
    std::error_code refused;
    fs::create_directories(file_.parent_path().parent_path(), refused);
    mkdir(file_.parent_path().c_str(), 0700);
    const int directory = ::open(file_.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    bool isOthersTurn = false;
    do {
      isOthersTurn = flock(directory, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    } while (isOthersTurn && wait());
    create();
    int code = open();
    if (!isOthersTurn && (isDamage(code) || (suspect && database_ && isDamaged()))) {
      shut();
      for (const char* suffix : suffixes) {
        const std::string name = file_.string();
        std::rename((name + suffix).c_str(), (name + ".damaged" + suffix).c_str());
      }
      create();
      code = open();
    }
    close(directory);
    return code;
  }

  // Runs `operation` on the file, which is opened if it isn't open or is no longer the one in its
  // place, and a second time if it finds damage.
  template <class Operation>
  int perform(Operation operation) {
    if (database_ && noteFiles()) {
      // A removed log's writes go to the file, and a removed file's log doesn't go to the next.
      sqlite3_wal_checkpoint_v2(database_.get(), nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr,
                                nullptr);
      shut();
    }
    int code = database_ ? SQLITE_OK : openOrReplace(false);
    if (code == SQLITE_OK) code = operation();
    if (!isDamage(code)) return code;
    code = openOrReplace(true);
    return code == SQLITE_OK ? operation() : code;
  }

  int step(const Statement& statement, std::string_view key) {
    sqlite3_bind_text64(statement.get(), 1, key.data(), key.size(), SQLITE_STATIC, SQLITE_UTF8);
    const int code = sqlite3_step(statement.get());
    // A row stays readable until the statement is run again.
    if (code != SQLITE_ROW) sqlite3_reset(statement.get());
    return code;
  }

  // Tells whether anything was written since, without the locks of a look into the file.
  std::optional<IndexVersion> indexVersion() const {
    sqlite3_file* file = nullptr;
    sqlite3_file_control(database_.get(), nullptr, SQLITE_FCNTL_FILE_POINTER, &file);
    void volatile* index = nullptr;
    if (file->pMethods->iVersion < 2 ||
        file->pMethods->xShmMap(file, 0, indexSize, 0, &index) != SQLITE_OK || !index)
      return std::nullopt;
    IndexVersion version;
    std::memcpy(version.data(), const_cast<const void*>(index), version.size());
    return version;
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
  Clock::time_point deadline_;  // of the access under way
  std::array<std::pair<dev_t, ino_t>, suffixes.size()> files_;
  Database database_;
  Statement get_;
  Statement put_;
  Statement remove_;
  Values unwritten_;  // what the file could not take
  Values known_;      // what was read of the file while it was of version_
  std::optional<IndexVersion> version_;
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
