#include "tests/support/independent_digest.h"

#include <gtest/gtest.h>

#include <cstdio>

#include "tests/support/bytes.h"
#include "tests/support/files.h"

MD4Hash independentDigest(std::string_view bytes, const std::string& scratch) {
    writeFile(scratch, bytes);
    const std::string command =
        "openssl dgst -md4 -r -provider legacy -provider default '" + scratch + "' 2>&1";
    std::FILE* pipe = ::popen(command.c_str(), "r");
    char answer[200] = {};
    if (pipe) {
        static_cast<void>(std::fgets(answer, sizeof answer, pipe));
        ::pclose(pipe);
    }
    MD4Hash hash;
    EXPECT_TRUE(hash.fromText(std::string_view(answer).substr(0, 32)))
        << "this test needs the openssl program with its legacy provider; it said: " << answer;
    return hash;
}

MD4Hash independentFileHash(std::string_view bytes, const std::string& scratch, std::vector<MD4Hash>& parts) {
    constexpr std::size_t partSize = 9'728'000;
    parts.clear();
    if (bytes.size() < partSize) return independentDigest(bytes, scratch);
    std::string together;
    for (std::size_t start = 0; start <= bytes.size(); start += partSize) {
        parts.push_back(independentDigest(bytes.substr(start, partSize), scratch));
        together += bytesOf(parts.back());
    }
    return independentDigest(together, scratch);
}
