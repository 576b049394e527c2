// The identity this data source reports to the manager.
#pragma once

#include <string>

#include "twain/twain.h"

namespace zentary {

// Fills the whole record from the bundle's version keys.
void fillIdentity(TW_IDENTITY& identity);
// Copies `text` into a TW_STR32 field, cut to its 33 characters and a NUL.
void copyIdentityString(char (&field)[34], const std::string& text);

}  // namespace zentary
