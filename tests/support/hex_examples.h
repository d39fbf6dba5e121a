#pragma once

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <istream>
#include <stdexcept>
#include <string>
#include <vector>

// The bytes of one example on a format page: a fenced block whose language is `hex NAME`. Each of its lines
// is pairs of hexadecimal digits with blanks between them; what follows a `;` is for the reader.
struct HexExample {
    std::string name;
    int line;  // of the opening fence, from 1
    std::vector<std::uint8_t> bytes;
};

// Reads the hex examples of one page. Throws std::runtime_error, naming the line, for a block without a name
// or without an end, and for anything in it that isn't a byte.
inline std::vector<HexExample> readHexExamples(std::istream& page) {
    std::vector<HexExample> examples;
    std::string text;
    bool open = false;
    int line = 0;
    const auto fail = [&line](const std::string& what) {
        throw std::runtime_error("line " + std::to_string(line) + ": " + what);
    };
    while (std::getline(page, text)) {
        ++line;
        if (!open) {
            if (text.rfind("```hex", 0) != 0) continue;
            if (text.size() < 8 || text[6] != ' ') fail("a hex example without a name");
            examples.push_back({text.substr(7), line, {}});
            open = true;
        } else if (text == "```") {
            open = false;
        } else {
            text.resize(std::min(text.find(';'), text.size()));
            for (std::size_t at = 0; at < text.size();) {
                if (text[at] == ' ') {
                    ++at;
                    continue;
                }
                const std::string pair = text.substr(at, 2);
                if (pair.size() != 2 || !std::isxdigit(static_cast<unsigned char>(pair[0])) ||
                    !std::isxdigit(static_cast<unsigned char>(pair[1]))) {
                    fail("no byte: " + pair);
                }
                examples.back().bytes.push_back(static_cast<std::uint8_t>(std::stoi(pair, nullptr, 16)));
                at += 2;
            }
        }
    }
    if (open) fail("a hex example without an end");
    return examples;
}
