// Digests by the openssl program.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "meta/MD4Hash.h"

// The MD4 of the bytes. They are written to a file of that path on the way. Fails the test without an openssl
// that has its legacy provider.
MD4Hash independentDigest(std::string_view bytes, const std::string& scratch);

// The hash of a file with these bytes, and the hashes of its parts: none where there is one part alone.
MD4Hash independentFileHash(std::string_view bytes, const std::string& scratch, std::vector<MD4Hash>& parts);
