// The description of a short link that the service is to make.

#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "PlatformTypes.h"
#include "QVDynamicLinkBehaviour.h"

namespace quorva {

/// A link's description: a value, to be made and used on any thread. Setters leave it as it is and
/// return a changed copy, so that several links can start from one:
///
///     const auto link = QVDynamicLinkBuilder("https://shop.example/shoes", "go.shop.example")
///                           .setSelectedPath("spring")
///                           .setUTMParameters("newsletter", "email", "spring")
///                           .build();
///
/// Texts lose the white space and line breaks at their ends, and are otherwise taken as they are:
/// the service, not the description, says whether they will do. A text that is blank is present and
/// empty, not absent.
class QUORVA_EXPORT QVDynamicLinkBuilder {
 public:
  /// `destinationURL` is where the link leads, `domain` the host that it is made on; a link with
  /// either of them empty is refused when it is to be created. Takes note of the stored API key and
  /// identifier: a description made before the library was ever initialized has neither, and keeps
  /// it so.
  QVDynamicLinkBuilder(std::string_view destinationURL, std::string_view domain);

  /// The link's name, for people who look through a list of links.
  [[nodiscard]] QVDynamicLinkBuilder setLinkName(std::string_view name) const;
  /// The path of the short link; the service chooses one where none is set.
  [[nodiscard]] QVDynamicLinkBuilder setSelectedPath(std::string_view path) const;

  /// @{
  /// Where the link opens; in the app, unless set.
  [[nodiscard]] QVDynamicLinkBuilder setIOSBehaviour(QVDynamicLinkBehaviour behaviour) const;
  [[nodiscard]] QVDynamicLinkBuilder setAndroidBehaviour(QVDynamicLinkBehaviour behaviour) const;
  /// @}

  /// @{
  /// What social networks show of the link.
  [[nodiscard]] QVDynamicLinkBuilder setSocialParameters(std::string_view title,
                                                         std::string_view description,
                                                         std::string_view imageUrl) const;
  [[nodiscard]] QVDynamicLinkBuilder setSocialTitle(std::string_view title) const;
  [[nodiscard]] QVDynamicLinkBuilder setSocialDescription(std::string_view description) const;
  [[nodiscard]] QVDynamicLinkBuilder setSocialImageUrl(std::string_view imageUrl) const;
  /// @}

  /// The campaign that the link belongs to. Replaces all five fields: without `content` or `term`
  /// there is none.
  [[nodiscard]] QVDynamicLinkBuilder setUTMParameters(
      std::string_view source, std::string_view medium, std::string_view campaign,
      std::optional<std::string_view> content = {},
      std::optional<std::string_view> term = {}) const;
  /// @{
  /// One field of the campaign.
  [[nodiscard]] QVDynamicLinkBuilder setUTMSource(std::string_view source) const;
  [[nodiscard]] QVDynamicLinkBuilder setUTMMedium(std::string_view medium) const;
  [[nodiscard]] QVDynamicLinkBuilder setUTMCampaign(std::string_view campaign) const;
  [[nodiscard]] QVDynamicLinkBuilder setUTMContent(std::string_view content) const;
  [[nodiscard]] QVDynamicLinkBuilder setUTMTerm(std::string_view term) const;
  /// @}

  /// The description as it stands: the end of a chain.
  [[nodiscard]] QVDynamicLinkBuilder build() const { return *this; }

  /// The JSON object that the service is sent, absent fields left out. For JSONEncoder.
  [[nodiscard]] JSONValue toJSON() const;
  /// Reads such an object: texts as they are, the API key and identifier from it alone. For
  /// JSONDecoder.
  [[nodiscard]] static Result<QVDynamicLinkBuilder> fromJSON(const JSONValue& json);

  /// Whether all fields are the same.
  friend bool operator==(const QVDynamicLinkBuilder&, const QVDynamicLinkBuilder&) = default;

 private:
  struct Fields {
    std::optional<std::string> apiKey;
    std::optional<std::string> deviceId;
    QVDynamicLinkBehaviour androidBehaviour = QVDynamicLinkBehaviour::app;
    std::string destinationURL;
    std::string domain;
    QVDynamicLinkBehaviour iosBehaviour = QVDynamicLinkBehaviour::app;
    std::optional<std::string> linkName;
    std::optional<std::string> selectedPath;
    std::optional<std::string> socialDescription;
    std::optional<std::string> socialImageUrl;
    std::optional<std::string> socialTitle;
    std::optional<std::string> utmCampaign;
    std::optional<std::string> utmContent;
    std::optional<std::string> utmMedium;
    std::optional<std::string> utmSource;
    std::optional<std::string> utmTerm;

    static auto codingKeys();
    friend bool operator==(const Fields&, const Fields&) = default;
  };

  explicit QVDynamicLinkBuilder(Fields fields) : fields_(std::move(fields)) {}

  template <class Value>
  [[nodiscard]] QVDynamicLinkBuilder with(Value Fields::*field, Value value) const;
  [[nodiscard]] QVDynamicLinkBuilder withText(std::optional<std::string> Fields::*field,
                                              std::string_view text) const;

  friend std::vector<std::string> emptyRequiredFields(const QVDynamicLinkBuilder& link);

  Fields fields_;
};

}  // namespace quorva
