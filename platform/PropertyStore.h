// System properties on a host: one file per property under
// R/dev/__properties__/. The platform API (property_get / property_set from
// cutils/properties.h) reads and writes through this seam, so tests can use an
// in-memory store instead of files.
#pragma once

#include <optional>
#include <string>

#include "platform/Seam.h"

namespace vekd::platform {

class PropertyStore {
  public:
    virtual ~PropertyStore() = default;
    // The value (at most PROP_VALUE_MAX - 1 bytes), or nothing when unset.
    virtual std::optional<std::string> read(const std::string& name) = 0;
    // Replaces the value atomically; false when it cannot be stored.
    virtual bool write(const std::string& name, const std::string& value) = 0;
    static PropertyStore& real();
};

// The directory that holds the property files, under the root directory.
std::string propertyDir();

// A name that can be stored as a file in that directory: 1 to 255 bytes, no
// '/', not "." or "..".
bool isValidPropertyName(const std::string& name);

}  // namespace vekd::platform
