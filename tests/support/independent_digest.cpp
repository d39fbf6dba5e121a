#include "tests/support/independent_digest.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <random>

MD4Hash independentDigest(std::string_view bytes, const std::string& scratch) {
    std::ofstream(scratch, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
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
        together.append(reinterpret_cast<const char*>(parts.back().bytes.data()), 16);
    }
    return independentDigest(together, scratch);
}

std::string someBytes(std::size_t count, unsigned seed) {
    std::string bytes(count, '\0');
    std::mt19937 random(seed);
    for (char& byte : bytes) byte = static_cast<char>(random());
    return bytes;
}
