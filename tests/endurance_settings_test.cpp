// The settings store by force: many processes at once, killed at random moments, and whatever may
// happen to the file.

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <deque>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "platform/UserDefaults.h"
#include "tests/Process.h"
#include "tests/Support.h"
#include "tests/Vectors.h"

namespace quorva::platform {
namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using test::Process;
using test::secondsSince;
using Clock = std::chrono::steady_clock;

constexpr int mostWriters = 6, keys = 8;

// What processes tell each other, in memory that outlives them.
struct Board {
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

// A process that does its part by itself, or has failed.
bool isDone(const std::function<bool()>& part) {
  return Process(part).end() == 0;
}

class EnduranceSettings : public testing::Test {
 protected:
  // A board for the processes of one round.
  Board& newBoard() { return *new (shared_) Board; }

  test::TemporaryDirectory directory;
  const fs::path file = directory.path() / "data" / "quorva" / "app.sqlite";

 private:
  void* const shared_ =
      mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
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
    Board& board = newBoard();
    std::deque<Process> reading, writing;
    for (int i = 0; i < readers; ++i) {
      reading.emplace_back([&] {
        UserDefaults settings(file);
        board.begin(writers + readers);
        for (int number = 0; !board.isOver; ++number) {
          if (numberOf(settings, key(number % writers, number / writers)) < 0) return false;
        }
        return true;
      });
    }
    for (int i = 0; i < writers; ++i) {
      writing.emplace_back([&] {
        UserDefaults settings(file);
        board.begin(writers + readers);
        for (int number = first;; ++number) {
          settings.set(key(i, number), text(number));
          board.stored[std::size_t(i)] = number;
        }
        return true;
      });
    }
    while (board.begun < writers + readers) std::this_thread::yield();
    for (int i = 0; i < writers && !isNew; ++i) {
      while (board.stored[std::size_t(i)] == 0) std::this_thread::yield();
    }
    for (Process& writer : writing) {
      const auto moment =
          Clock::now() + std::chrono::microseconds(int(std::exp2(exponent(random))));
      while (Clock::now() < moment) {
      }
      writer.signal(SIGKILL);
      EXPECT_EQ(writer.end(), -SIGKILL);
    }
    board.isOver = true;
    for (Process& reader : reading) EXPECT_EQ(reader.end(), 0) << "torn";
    EXPECT_TRUE(isDone([&] {
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
    }));
    EXPECT_FALSE(fs::exists(file.string() + ".damaged"));
    for (int i = 0; i < writers; ++i) {
      const int last = board.stored[std::size_t(i)];
      values += last ? last - first + 1 : 0;
      early += last == 0;
      ++kills;
    }
  }
  std::printf("%d kills, %d before the first value; %d values, in %.0f s\n", kills, early, values,
              secondsSince(begun));
}

TEST_F(EnduranceSettings, ServeManyThreadsOfManyProcesses) {
  constexpr int processes = 4, threads = 4, values = 50;
  const int times = test::rounds(2, 50);
  const auto begun = Clock::now();
  for (int round = 1; round <= times && !HasFailure(); ++round) {
    fs::remove_all(file.parent_path());
    Board& board = newBoard();
    std::deque<Process> all;
    for (int process = 0; process < processes; ++process) {
      all.emplace_back([&] {
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
      });
    }
    for (Process& process : all) EXPECT_EQ(process.end(), 0);
    EXPECT_TRUE(isDone([&] {
      UserDefaults settings(file);
      for (int own = 0; own < processes * threads; ++own) {
        for (int number = 1; number <= values; ++number) {
          if (numberOf(settings, std::to_string(own) + "." + std::to_string(number)) != number)
            return false;
        }
      }
      return true;
    }));
  }
  std::printf("%d values of %d threads, in %.0f s\n", times * processes * threads * values,
              processes * threads, secondsSince(begun));
}

// What a process was told of is there when it looks.
TEST_F(EnduranceSettings, AreSeenByOthersAtOnce) {
  const int last = test::rounds(400, 20000);
  std::atomic<int>& stored = newBoard().stored[0];
  std::deque<Process> both;
  for (const int own : {0, 1}) {
    both.emplace_back([&, own] {
      UserDefaults settings(file);
      for (int number = own; number < last; number += 2) {
        while (stored != number) std::this_thread::yield();
        const bool isSeen = settings.get<std::string>("k").value_or("0") == std::to_string(number);
        settings.set("k", std::to_string(number + 1));
        stored = isSeen ? number + 1 : last;
        if (!isSeen) return false;
      }
      return true;
    });
  }
  for (Process& one : both) EXPECT_EQ(one.end(), 0);
}

// Each row says what happens, by which command, and what comes of it before the file is opened and
// while it is open: what is then read of a setting that was "file" and then "log", and whether one
// that is set from then on is found by other processes. A last command finds what was to be left.
TEST_F(EnduranceSettings, MakeTheBestOfWhatHappensToTheFile) {
  setenv("d", file.parent_path().c_str(), 1);
  setenv("f", file.c_str(), 1);
  const auto run = [](const std::string& command) {
    return std::system(("exec 2> /dev/null; " + command).c_str());
  };
  const std::string later(50000, 'n');
  for (const auto& misfortune : test::vectors("misfortunes.json")) {
    for (const bool isOpen : {false, true}) {
      SCOPED_TRACE(misfortune[0].get<std::string>() + (isOpen ? ", while open" : ""));
      const std::string comesOfIt = misfortune[isOpen ? 3 : 2];
      const bool isKept = comesOfIt.ends_with(", kept");
      fs::remove_all(directory.path() / "data");
      const bool hasFailed = HasFailure();
      EXPECT_TRUE(isDone([&] {
        UserDefaults(file).set("k", "file"s);
        fs::copy_file(file, file.parent_path() / "backup");
        (new UserDefaults(file))->set("k", "log"s);
        return true;
      }));
      EXPECT_TRUE(isDone([&] {
        signal(SIGXFSZ, SIG_IGN);
        auto& settings = *new UserDefaults(file);
        if (isOpen) settings.set("k", "log"s);
        EXPECT_EQ(run(misfortune[1]), 0);
        const auto begun = Clock::now();
        const std::string found = settings.get<std::string>("k").value_or("nothing");
        EXPECT_EQ(found + (isKept ? ", kept" : ""), comesOfIt);
        settings.set("k", std::nullopt);
        EXPECT_EQ(settings.get<std::string>("k"), std::nullopt);
        settings.set("k", later);
        EXPECT_EQ(settings.get<std::string>("k"), later);
        EXPECT_LT(secondsSince(begun), 1.5);
        return hasFailed || !HasFailure();
      }));
      if (misfortune.size() > 4) {
        EXPECT_EQ(run(misfortune[4]), 0) << misfortune[4];
      }
      run("chmod -R u+rwX $d");
      EXPECT_EQ(isDone([&] { return UserDefaults(file).get<std::string>("k") == later; }), isKept);
    }
  }
}

}  // namespace
}  // namespace quorva::platform
