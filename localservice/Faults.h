// What goes wrong between the service and the library, because somebody switched it on.
//
// Any thread. In memory only: with a new start of the service nothing is wrong.

#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "localservice/Service.h"

namespace localservice {

/// What reaches the library of an answer.
struct Reply {
  int status;
  std::string body;
  bool isReset = false;  // the connection breaks after the head
  bool isHalf = false;   // it ends in the middle of the body
  std::chrono::milliseconds delay{0};
  std::vector<std::string> faults{};  // the kinds of those that happened
};

class Faults {
 public:
  /// Switches on what {"endpoint", "kind", "value", "once"} describe and gives it with its "id".
  /// Throws std::invalid_argument with one readable line.
  nlohmann::json add(const nlohmann::json& description);

  /// All that are on, in the order in which they were switched on.
  [[nodiscard]] nlohmann::json list();

  /// False if there is no such fault on.
  [[nodiscard]] bool remove(int id);
  void clear();

  /// Takes `answer` as far as the faults that are on for the endpoint let it come. Those that are
  /// for once are off from then on. One of a status answers in the service's place.
  [[nodiscard]] Reply reply(std::string_view endpoint, const std::function<Answer()>& answer);

 private:
  std::mutex mutex_;
  // Guarded by mutex_:
  int lastId_ = 0;
  std::map<int, nlohmann::json> on_;
};

}  // namespace localservice
