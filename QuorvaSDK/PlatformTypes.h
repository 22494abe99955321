// The types of the layer below that a host works with.

#pragma once

#include "platform/Bundle.h"
#include "platform/Date.h"
#include "platform/Device.h"
#include "platform/Error.h"
#include "platform/JSON.h"
#include "platform/MainQueue.h"
#include "platform/RawValue.h"
#include "platform/Task.h"
#include "platform/URL.h"
#include "platform/URLError.h"

/// The layer below: time, threads, JSON, errors. Use its names as `quorva::…`, where those that a
/// host needs are, too.
namespace quorva::platform {}

/// The library. All of it is here, but for its version.
namespace quorva {

using platform::allCases;
using platform::Bundle;
using platform::Date;
using platform::DecodingError;
using platform::Device;
using platform::DeviceTraits;
using platform::EncodingError;
using platform::Error;
using platform::fromRawValue;
using platform::JSONDecoder;
using platform::JSONEncoder;
using platform::JSONValue;
using platform::MainQueue;
using platform::rawValue;
using platform::Result;
using platform::Size;
using platform::start;
using platform::Task;
using platform::URL;
using platform::URLError;
using platform::UserInterfaceIdiom;

}  // namespace quorva
