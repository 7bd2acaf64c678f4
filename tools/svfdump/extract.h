// Writes the entries of a sound inspection under a directory of the user's
// choice and never outside it.
//
// Each entry goes where a restore would put it (its stored name cut at
// ".bak"), taken relative to DIR: /conf/passwd.bak becomes DIR/conf/passwd.
// A path with a ".." component is refused, and every path is checked before
// anything is written, so a refused file creates nothing at all.  The walk
// below DIR opens one component at a time without following symbolic links,
// and each file is written under a temporary name and renamed into place, so
// neither a link nor a hard link planted in DIR leads a write outside it.
// Permission bits are applied (not set-id or sticky bits, not the owner).
#pragma once

#include <string>
#include <vector>

#include "inspect.h"
#include "render.h"

namespace svfdump {

// The components of `target` below DIR; false, with `why`, when unsafe.
bool relativeComponents(const std::string& target, std::vector<std::string>& out, std::string& why);

ExtractOutcome extractAll(const Inspection& r, const std::string& dir);

}  // namespace svfdump
