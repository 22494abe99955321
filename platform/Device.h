// The machine: read from the system each time it is asked about, or as the host describes it.

#pragma once

#include <optional>
#include <string>

#include "Export.h"

namespace quorva::platform {

/// The kind of machine, by how it is held. The numbers are those that phones' systems use.
enum class UserInterfaceIdiom : int {
  unspecified = -1,  ///< not known, or none of these
  phone = 0,         ///< in a hand
  pad = 1,           ///< in two hands, or on a table
  tv = 2,            ///< across the room
  carPlay = 3,       ///< in a car
  mac = 5,           ///< on a desk
  vision = 6,        ///< worn before the eyes
};

/// A screen's size, in points.
struct Size {
  double width = 0;   ///< from left to right
  double height = 0;  ///< from top to bottom
};

/// What a host knows better than the system does. What is absent is read from the system.
struct DeviceTraits {
  std::optional<UserInterfaceIdiom> userInterfaceIdiom;  ///< what kind of machine it is
  std::optional<std::string> systemVersion;              ///< the system's, "12"
  std::optional<std::string> model;                      ///< as a person would call it, "Kiosk 7"
  std::optional<std::string> name;                       ///< what the owner calls it, "Front desk"
  std::optional<Size> screen;                            ///< of the display the application is on
};

/// The machine. Any thread; each reading asks anew.
class QUORVA_EXPORT Device {
 public:
  Device() = delete;

  /// Replaces what the host says of the machine.
  static void describe(DeviceTraits traits);

  /// `unspecified` where neither the host nor the system tells.
  [[nodiscard]] static UserInterfaceIdiom userInterfaceIdiom();
  /// The distribution's version, "12", else the kernel's.
  [[nodiscard]] static std::string systemVersion();
  /// The product's name, else the processor's kind.
  [[nodiscard]] static std::string model();
  /// The host name.
  [[nodiscard]] static std::string name();
  /// The connected display; 0 by 0 where there is none or the system doesn't tell.
  [[nodiscard]] static Size screen();
};

}  // namespace quorva::platform
