// The S(mg, eg) pairs of an evaluation weights source as text: the tuner reads and
// rewrites them, its test compares two versions. A plain scan, so that the tool and its
// test need no regular-expression engine.
#pragma once

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <string>
#include <vector>

struct weightPairText {
    size_t at = 0, length = 0;  // where "S( mg, eg)" stands in the text
    int mg = 0, eg = 0;
};

namespace weightsfile_detail {

inline bool readInt(const std::string& text, size_t& i, int& value) {
    const size_t start = i;
    if (i < text.size() && text[i] == '-')
        i++;
    const size_t digits = i;
    while (i < text.size() && std::isdigit(static_cast<unsigned char>(text[i])))
        i++;
    if (i == digits || i - digits > 9)
        return false;
    value = std::stoi(text.substr(start, i - start));
    return true;
}

inline void skipSpaces(const std::string& text, size_t& i) {
    while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i])))
        i++;
}

}  // namespace weightsfile_detail

// Every well-formed "S(mg, eg)" in text[from, to), in order of position.
inline std::vector<weightPairText> weightPairsIn(const std::string& text, size_t from = 0,
                                                 size_t to = std::string::npos) {
    using namespace weightsfile_detail;
    std::vector<weightPairText> pairs;
    to = std::min(to, text.size());
    for (size_t p = text.find("S(", from); p != std::string::npos && p < to;
         p = text.find("S(", p + 2)) {
        weightPairText w;
        size_t i = p + 2;
        skipSpaces(text, i);
        if (!readInt(text, i, w.mg) || i >= text.size() || text[i] != ',')
            continue;
        i++;
        skipSpaces(text, i);
        if (!readInt(text, i, w.eg) || i >= text.size() || text[i] != ')' || i >= to)
            continue;
        w.at = p;
        w.length = i + 1 - p;
        pairs.push_back(w);
    }
    return pairs;
}
