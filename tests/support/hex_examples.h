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
            std::erase(text, ' ');
            const auto isDigit = [](unsigned char c) { return std::isxdigit(c) != 0; };
            if (text.size() % 2 != 0 || !std::all_of(text.begin(), text.end(), isDigit)) {
                fail("no bytes: " + text);
            }
            for (std::size_t at = 0; at < text.size(); at += 2) {
                examples.back().bytes.push_back(
                    static_cast<std::uint8_t>(std::stoi(text.substr(at, 2), nullptr, 16)));
            }
        }
    }
    if (open) fail("a hex example without an end");
    return examples;
}
