// The settings store by force: many processes at once, killed at random moments, and whatever may
// happen to the file.

#include <grp.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/UserDefaults.h"
#include "tests/Support.h"

namespace quorva::platform {
namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using Clock = std::chrono::steady_clock;

constexpr uid_t nobody = 65534;
constexpr int mostWriters = 6, keys = 8;

// Has `part` done by a process of its own, as a user whom permissions stop; the process' exit
// status says whether it went well. It ends without a destructor, as one does that has the
// library's settings, and with this one.
pid_t launch(const std::function<bool()>& part) {
  std::fflush(stdout);
  const pid_t child = fork();
  if (child != 0) return child;
  const bool isStopped =
      geteuid() != 0 || (setgroups(0, nullptr) == 0 && setresgid(nobody, nobody, nobody) == 0 &&
                         setresuid(nobody, nobody, nobody) == 0);
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const bool wentWell = isStopped && part();
  std::fflush(stdout);
  _exit(!wentWell);
}

bool wentWell(pid_t process) {
  int status = 0;
  waitpid(process, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// What processes tell each other, in memory that outlives them.
struct Board {
  static Board& make() {
    void* shared =
        mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return *new (shared) Board;
  }

  void begin(int all) {
    for (++begun; begun < all;) std::this_thread::yield();
  }

  std::atomic<int> begun;
  std::atomic<bool> isOver;
  std::array<std::atomic<int>, mostWriters> stored;  // the number of the last value that was
};

// The text with a number, in several pages of the file.
std::string text(int number) {
  return std::to_string(number) +
         std::string(std::size_t(9000 + number % 5000), char('a' + number % 26));
}

// The number of the text under `key`, 0 without one, -1 of one that was never written.
int numberOf(UserDefaults& settings, const std::string& key) {
  const auto found = settings.get<std::string>(key).value_or("0");
  const int number = std::atoi(found.c_str());
  return found == "0" || found == text(number) ? number : -1;
}

std::string key(int writer, int number) {
  return std::to_string(writer) + "." + std::to_string(number % keys);
}

class EnduranceSettings : public testing::Test {
 protected:
  EnduranceSettings() {
    EXPECT_TRUE(geteuid() != 0 || chown(directory.path().c_str(), nobody, nobody) == 0);
  }

  test::TemporaryDirectory directory;
  const fs::path file = directory.path() / "data" / "quorva" / "app.sqlite";
};

// Every other time the file is new, and more processes are killed while they make it.
TEST_F(EnduranceSettings, KeepWhatWasStoredBeforeAKill) {
  const int times = test::rounds(20, 1000);
  const auto begun = Clock::now();
  std::mt19937 random(std::random_device{}());
  std::uniform_real_distribution exponent(0.0, 16.0);
  int values = 0, kills = 0, early = 0;
  for (int round = 1; round <= times && !HasFailure(); ++round) {
    SCOPED_TRACE(round);
    const bool isNew = round % 2 == 1;
    if (isNew) fs::remove_all(file.parent_path());
    const int writers = isNew ? mostWriters : 2, readers = 2;
    const int first = round * 10000;
    Board& board = Board::make();
    std::vector<pid_t> reading, writing;
    for (int i = 0; i < readers; ++i) {
      reading.push_back(launch([&] {
        UserDefaults settings(file);
        board.begin(writers + readers);
        for (int number = 0; !board.isOver; ++number) {
          if (numberOf(settings, key(number % writers, number / writers)) < 0) return false;
        }
        return true;
      }));
    }
    for (int i = 0; i < writers; ++i) {
      writing.push_back(launch([&] {
        UserDefaults settings(file);
        board.begin(writers + readers);
        for (int number = first;; ++number) {
          settings.set(key(i, number), text(number));
          board.stored[std::size_t(i)] = number;
        }
        return true;
      }));
    }
    while (board.begun < writers + readers) std::this_thread::yield();
    for (int i = 0; i < writers && !isNew; ++i) {
      while (board.stored[std::size_t(i)] == 0) std::this_thread::yield();
    }
    for (const pid_t writer : writing) {
      const auto moment =
          Clock::now() + std::chrono::microseconds(int(std::exp2(exponent(random))));
      while (Clock::now() < moment) {
      }
      kill(writer, SIGKILL);
      EXPECT_FALSE(wentWell(writer));
    }
    board.isOver = true;
    for (const pid_t reader : reading) EXPECT_TRUE(wentWell(reader)) << "torn";
    EXPECT_TRUE(wentWell(launch([&] {
      UserDefaults settings(file);
      for (int i = 0; i < writers; ++i) {
        const int last = board.stored[std::size_t(i)];
        for (int number = std::max(first, last - keys + 1); number <= last; ++number) {
          const int found = numberOf(settings, key(i, number));
          if (found < number || found > last + 1) {
            ADD_FAILURE() << "instead of " << number << " of " << last << ": " << found;
            return false;
          }
        }
      }
      settings.set("after", text(round));
      return numberOf(settings, "after") == round;
    })));
    EXPECT_FALSE(fs::exists(file.string() + ".damaged"));
    for (int i = 0; i < writers; ++i) {
      const int last = board.stored[std::size_t(i)];
      values += last ? last - first + 1 : 0;
      early += last == 0;
      ++kills;
    }
    munmap(&board, sizeof board);
  }
  std::printf("%d kills, %d before the first value; %d values: 0 lost, 0 torn, in %.0f s\n", kills,
              early, values, std::chrono::duration<double>(Clock::now() - begun).count());
}

TEST_F(EnduranceSettings, ServeManyThreadsOfManyProcesses) {
  constexpr int processes = 4, threads = 4, values = 50;
  const int times = test::rounds(2, 50);
  const auto begun = Clock::now();
  for (int round = 1; round <= times && !HasFailure(); ++round) {
    fs::remove_all(file.parent_path());
    Board& board = Board::make();
    std::vector<pid_t> all;
    for (int process = 0; process < processes; ++process) {
      all.push_back(launch([&] {
        UserDefaults shared(file);
        std::atomic<bool> isWell = true;
        board.begin(processes);
        std::vector<std::jthread> running;
        for (int thread = 0; thread < threads; ++thread) {
          running.emplace_back([&, own = process * threads + thread] {
            UserDefaults alone(file);
            UserDefaults& settings = own % 2 ? shared : alone;
            for (int number = 1; number <= values; ++number) {
              const std::string name = std::to_string(own) + "." + std::to_string(number);
              settings.set(name, text(number));
              settings.set("everybody's", text(own));
              if (numberOf(settings, name) != number || numberOf(settings, "everybody's") < 0)
                isWell = false;
            }
          });
        }
        running.clear();
        return isWell.load();
      }));
    }
    for (const pid_t process : all) EXPECT_TRUE(wentWell(process));
    EXPECT_TRUE(wentWell(launch([&] {
      UserDefaults settings(file);
      for (int own = 0; own < processes * threads; ++own) {
        for (int number = 1; number <= values; ++number) {
          if (numberOf(settings, std::to_string(own) + "." + std::to_string(number)) != number)
            return false;
        }
      }
      return true;
    })));
    munmap(&board, sizeof board);
  }
  std::printf("%d values of %d threads: 0 lost, in %.0f s\n", times * processes * threads * values,
              processes * threads, std::chrono::duration<double>(Clock::now() - begun).count());
}

struct Outcome {
  std::optional<std::string_view>
      value;    // what is read of a setting that was "file", and then "log"
  bool isKept;  // whether one set from then on is found by other processes
};

struct Misfortune {
  const char* what;
  const char* happens;     // a command; $f is the file, and $d its folder
  Outcome closed, open;    // what comes of it before the file is opened, and while it is open
  const char* then = ":";  // a command that finds what was to be left
};

constexpr Outcome unharmed{"log", true}, begunAnew{std::nullopt, true},
    inMemory{std::nullopt, false};

constexpr Misfortune misfortunes[] = {
    {"no folder", "rm -r $d", begunAnew, begunAnew},
    {"no file", "rm $f", begunAnew, begunAnew},
    {"no log", "rm $f-wal", {"file", true}, unharmed},
    {"no index", "rm $f-shm", unharmed, unharmed},
    {"an empty index", ": > $f-shm", unharmed, unharmed},
    {"a log that means nothing", "seq 9999 > $f-wal", {"file", true}, {"log", false}},
    {"an index that means nothing", "seq 9999 | dd of=$f-shm conv=notrunc", unharmed, unharmed},
    {"an older file", "cp $d/backup $f.new; mv $f.new $f; rm $f-*", {"file", true}, {"file", true}},
    {"an older file beside the log", "cp $d/backup $f.new; mv $f.new $f", unharmed, {"file", true}},
    {"a directory", "rm $f; mkdir $f", inMemory, inMemory, "test -d $f"},
    {"a pipe", "rm $f; mkfifo $f", inMemory, inMemory, "test -p $f"},
    {"a device", "ln -sf /dev/zero $f", inMemory, inMemory, "test -c $f"},
    {"a link to itself", "rm $f; ln -s $f $f", inMemory, inMemory, "test -h $f"},
    {"a link to nothing", "ln -sf nothing $f", inMemory, inMemory, "test -h $f -a ! -e $f"},
    {"a pipe for a log", "rm $f-wal; mkfifo $f-wal", {"file", false}, unharmed},
    {"a directory for an index", "rm $f-shm; mkdir $f-shm", {"log", false}, {"log", false}},
    {"a folder elsewhere", "mv $d $d.moved; ln -s $d.moved $d", unharmed, unharmed},
    {"no writing to the folder", "chmod 500 $d", unharmed, unharmed},
    {"no writing", "chmod 400 $f*; chmod 500 $d", {"log", false}, unharmed},
    {"no reading", "chmod 0 $f", inMemory, unharmed},
    {"no entering the folder", "chmod 0 $d", inMemory, unharmed},
    {"a full disk", "prlimit --pid $PPID --fsize=32768", {"log", false}, {"log", false}},
    {"no descriptors", "prlimit --pid $PPID --nofile=3", inMemory, unharmed},
    {"a format that can't be read", "printf '\\3' | dd of=$f bs=1 seek=19 conv=notrunc", inMemory,
     unharmed, "test $(od -An -tu1 -j19 -N1 $f) = 3"},
    {"a format that can't be written",
     "printf '\\3' | dd of=$f bs=1 seek=18 conv=notrunc",
     {"log", false},
     unharmed,
     "test $(od -An -tu1 -j18 -N1 $f) = 3"},
};

TEST_F(EnduranceSettings, MakeTheBestOfWhatHappensToTheFile) {
  setenv("d", file.parent_path().c_str(), 1);
  setenv("f", file.c_str(), 1);
  const auto run = [](const char* command) {
    return std::system(("exec 2> /dev/null; "s + command).c_str());
  };
  const std::string later(50000, 'n');
  for (const auto& misfortune : misfortunes) {
    for (const bool isOpen : {false, true}) {
      SCOPED_TRACE(misfortune.what + (isOpen ? ", while open"s : ""s));
      const auto& [value, isKept] = isOpen ? misfortune.open : misfortune.closed;
      fs::remove_all(directory.path() / "data");
      const bool hasFailed = HasFailure();
      wentWell(launch([&] {
        UserDefaults(file).set("k", "file"s);
        fs::copy_file(file, file.parent_path() / "backup");
        (new UserDefaults(file))->set("k", "log"s);
        return true;
      }));
      const pid_t unlucky = launch([&, &value = value] {
        signal(SIGXFSZ, SIG_IGN);
        auto& settings = *new UserDefaults(file);
        if (isOpen) settings.set("k", "log"s);
        EXPECT_EQ(run(misfortune.happens), 0);
        const auto begun = Clock::now();
        EXPECT_EQ(settings.get<std::string>("k"), value);
        settings.set("k", later);
        EXPECT_EQ(settings.get<std::string>("k"), later);
        EXPECT_LT(Clock::now() - begun, std::chrono::milliseconds(1500));
        return hasFailed || !HasFailure();
      });
      EXPECT_TRUE(wentWell(unlucky));
      EXPECT_EQ(run(misfortune.then), 0) << misfortune.then;
      run("chmod -R u+rwX $d");
      const pid_t next = launch([&] { return UserDefaults(file).get<std::string>("k") == later; });
      EXPECT_EQ(wentWell(next), isKept);
    }
  }
}

}  // namespace
}  // namespace quorva::platform
