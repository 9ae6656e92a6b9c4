#pragma once
// How many words of a reference a transcript got right: 1 minus the word error rate (substitutions, deletions and
// insertions over the reference's words), with letter case and punctuation ignored.
#include <algorithm>
#include <cctype>
#include <string>
#include <vector>

namespace sprelio::testhelpers {

inline std::vector<std::string> words(const std::string& text) {
    std::vector<std::string> out;
    std::string current;
    for (char c : text) {
        if (std::isalnum(static_cast<unsigned char>(c)) || c == '\'') {
            current += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        } else if (!current.empty()) {
            out.push_back(std::move(current));
            current.clear();
        }
    }
    if (!current.empty()) out.push_back(current);
    return out;
}

inline double wordAccuracy(const std::string& reference, const std::string& hypothesis) {
    auto ref = words(reference);
    auto hyp = words(hypothesis);
    if (ref.empty()) return hyp.empty() ? 1.0 : 0.0;
    std::vector<std::size_t> row(hyp.size() + 1);
    for (std::size_t j = 0; j <= hyp.size(); ++j) row[j] = j;
    for (std::size_t i = 1; i <= ref.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= hyp.size(); ++j) {
            std::size_t above = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (ref[i - 1] == hyp[j - 1] ? 0 : 1)});
            diagonal = above;
        }
    }
    return 1.0 - static_cast<double>(row[hyp.size()]) / static_cast<double>(ref.size());
}

} // namespace sprelio::testhelpers
