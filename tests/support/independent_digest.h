// Digests computed by the openssl program.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "meta/MD4Hash.h"

// The MD4 of the bytes, which are written to a file at `path`. Fails the test if openssl has no legacy
// provider.
MD4Hash independentDigest(std::string_view bytes, const std::string& scratch);

// The hash of a file with these bytes, and the hashes of its parts, none if it has only one.
MD4Hash independentFileHash(std::string_view bytes, const std::string& scratch, std::vector<MD4Hash>& parts);
