#include "QuorvaSDK/QVDynamicLinkBuilder.h"

#include <tuple>
#include <utility>

#include "QuorvaSDK/Encodable+Extensions.h"
#include "QuorvaSDK/StorageKeys.h"
#include "platform/Codable.h"
#include "platform/Text.h"

namespace quorva {

using platform::CodingKey;
using platform::trimmed;

auto QVDynamicLinkBuilder::Fields::codingKeys() {
  return std::tuple{
      CodingKey{"api_key", &Fields::apiKey},
      CodingKey{"device_id", &Fields::deviceId},
      CodingKey{"android_behavior", &Fields::androidBehaviour},
      CodingKey{"destination_url", &Fields::destinationURL, "destinationURL"},
      CodingKey{"domain", &Fields::domain, "domain"},
      CodingKey{"ios_behavior", &Fields::iosBehaviour},
      CodingKey{"link_name", &Fields::linkName},
      CodingKey{"selected_path", &Fields::selectedPath},
      CodingKey{"social_description", &Fields::socialDescription},
      CodingKey{"social_image_url", &Fields::socialImageUrl},
      CodingKey{"social_title", &Fields::socialTitle},
      CodingKey{"utm_source", &Fields::utmSource},
      CodingKey{"utm_medium", &Fields::utmMedium},
      CodingKey{"utm_campaign", &Fields::utmCampaign},
      CodingKey{"utm_content", &Fields::utmContent},
      CodingKey{"utm_term", &Fields::utmTerm},
  };
}

QVDynamicLinkBuilder::QVDynamicLinkBuilder(std::string_view destinationURL,
                                           std::string_view domain) {
  fields_.apiKey = StorageKeys::apiKey.get();
  fields_.deviceId = StorageKeys::anonymousId.get();
  fields_.destinationURL = trimmed(destinationURL);
  fields_.domain = trimmed(domain);
}

template <class Value>
QVDynamicLinkBuilder QVDynamicLinkBuilder::with(Value Fields::*field, Value value) const {
  QVDynamicLinkBuilder changed = *this;
  changed.fields_.*field = std::move(value);
  return changed;
}

QVDynamicLinkBuilder QVDynamicLinkBuilder::withText(std::optional<std::string> Fields::*field,
                                                    std::string_view text) const {
  return with(field, std::optional(trimmed(text)));
}

QVDynamicLinkBuilder QVDynamicLinkBuilder::setLinkName(std::string_view name) const {
  return withText(&Fields::linkName, name);
}

QVDynamicLinkBuilder QVDynamicLinkBuilder::setSelectedPath(std::string_view path) const {
  return withText(&Fields::selectedPath, path);
}

QVDynamicLinkBuilder QVDynamicLinkBuilder::setIOSBehaviour(QVDynamicLinkBehaviour behaviour) const {
  return with(&Fields::iosBehaviour, behaviour);
}

QVDynamicLinkBuilder QVDynamicLinkBuilder::setAndroidBehaviour(
    QVDynamicLinkBehaviour behaviour) const {
  return with(&Fields::androidBehaviour, behaviour);
}

QVDynamicLinkBuilder QVDynamicLinkBuilder::setSocialParameters(std::string_view title,
                                                               std::string_view description,
                                                               std::string_view imageUrl) const {
  return setSocialTitle(title).setSocialDescription(description).setSocialImageUrl(imageUrl);
}

QVDynamicLinkBuilder QVDynamicLinkBuilder::setSocialTitle(std::string_view title) const {
  return withText(&Fields::socialTitle, title);
}

QVDynamicLinkBuilder QVDynamicLinkBuilder::setSocialDescription(
    std::string_view description) const {
  return withText(&Fields::socialDescription, description);
}

QVDynamicLinkBuilder QVDynamicLinkBuilder::setSocialImageUrl(std::string_view imageUrl) const {
  return withText(&Fields::socialImageUrl, imageUrl);
}

QVDynamicLinkBuilder QVDynamicLinkBuilder::setUTMParameters(
    std::string_view source, std::string_view medium, std::string_view campaign,
    std::optional<std::string_view> content, std::optional<std::string_view> term) const {
  const auto text = [](std::optional<std::string_view> given) {
    return given ? std::optional(trimmed(*given)) : std::nullopt;
  };
  return setUTMSource(source)
      .setUTMMedium(medium)
      .setUTMCampaign(campaign)
      .with(&Fields::utmContent, text(content))
      .with(&Fields::utmTerm, text(term));
}

QVDynamicLinkBuilder QVDynamicLinkBuilder::setUTMSource(std::string_view source) const {
  return withText(&Fields::utmSource, source);
}

QVDynamicLinkBuilder QVDynamicLinkBuilder::setUTMMedium(std::string_view medium) const {
  return withText(&Fields::utmMedium, medium);
}

QVDynamicLinkBuilder QVDynamicLinkBuilder::setUTMCampaign(std::string_view campaign) const {
  return withText(&Fields::utmCampaign, campaign);
}

QVDynamicLinkBuilder QVDynamicLinkBuilder::setUTMContent(std::string_view content) const {
  return withText(&Fields::utmContent, content);
}

QVDynamicLinkBuilder QVDynamicLinkBuilder::setUTMTerm(std::string_view term) const {
  return withText(&Fields::utmTerm, term);
}

JSONValue QVDynamicLinkBuilder::toJSON() const {
  return platform::encode(fields_);
}

Result<QVDynamicLinkBuilder> QVDynamicLinkBuilder::fromJSON(const JSONValue& json) {
  try {
    return QVDynamicLinkBuilder(platform::decode<Fields>(json, {}));
  } catch (const Error& error) {
    return error;
  }
}

std::vector<std::string> emptyRequiredFields(const QVDynamicLinkBuilder& link) {
  return emptyRequiredFields(link.fields_);
}

}  // namespace quorva
