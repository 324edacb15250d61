#include "suggest.hpp"

#include <algorithm>
#include <cctype>

#include "cli_support.hpp"

namespace ocpctl {

namespace {

std::string lowercase(std::string text) {
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

// True when `word` is an option that takes a value in the next argument
// ("--bus sim"), as opposed to a flag or the "--bus=sim" form.
bool option_takes_next_argument(const CLI::App& app, const std::string& word) {
    if (word.find('=') != std::string::npos) return false;
    for (const CLI::App* level = &app; level != nullptr; level = level->get_parent()) {
        const CLI::Option* option = level->get_option_no_throw(word);
        if (option != nullptr) return option->get_expected_max() > 0;
    }
    return false;
}

std::vector<std::string> subcommand_names(const CLI::App& app) {
    std::vector<std::string> names;
    for (const CLI::App* sub : app.get_subcommands([](const CLI::App*) { return true; })) names.push_back(sub->get_name());
    return names;
}

}  // namespace

std::size_t edit_distance(const std::string& a, const std::string& b) {
    std::vector<std::vector<std::size_t>> d(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
    for (std::size_t i = 0; i <= a.size(); ++i) d[i][0] = i;
    for (std::size_t j = 0; j <= b.size(); ++j) d[0][j] = j;
    for (std::size_t i = 1; i <= a.size(); ++i) {
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t substitution = a[i - 1] == b[j - 1] ? 0 : 1;
            d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + substitution});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
        }
    }
    return d[a.size()][b.size()];
}

std::string nearest(const std::string& word, const std::vector<std::string>& candidates) {
    // Long words are compared by their start, so that a pasted paragraph
    // costs no more than a typo.
    const std::string key = lowercase(word.substr(0, 32));
    std::string best;
    std::size_t best_distance = 0;
    for (const auto& candidate : candidates) {
        const std::size_t distance = edit_distance(key, lowercase(candidate));
        if (best.empty() || distance < best_distance) {
            best = candidate;
            best_distance = distance;
        }
    }
    return best;
}

std::string describe_unknown_command(const CLI::App& app, int argc, const char* const* argv) {
    const CLI::App* level = &app;
    std::string path;  // "params " when the unknown word is below "params"
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word == "--") return "";
        if (word.size() > 1 && word[0] == '-') {
            if (option_takes_next_argument(*level, word)) ++i;
            continue;
        }
        const std::vector<std::string> names = subcommand_names(*level);
        if (names.empty()) return "";  // a positional argument of a command
        const auto found = std::find(names.begin(), names.end(), word);
        if (found == names.end())
            return "unknown " + (path.empty() ? std::string() : path + " ") + "command '" + shorten(word) +
                   "'; did you mean '" + nearest(word, names) + "'?";
        level = level->get_subcommand(word);
        path += (path.empty() ? "" : " ") + word;
    }
    return "";
}

std::string shorten_arguments(const std::string& message, int argc, const char* const* argv) {
    std::string text = message;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        const std::string cut = shorten(argument);
        if (cut.size() >= argument.size()) continue;
        for (std::size_t at = text.find(argument); at != std::string::npos; at = text.find(argument, at + cut.size()))
            text.replace(at, argument.size(), cut);
    }
    // Parts of an argument (one of a comma-separated list, a NAME=VALUE
    // half) are cut as whole words.
    std::string result;
    std::size_t start = 0;
    while (start < text.size()) {
        const std::size_t end = std::min(text.find(' ', start), text.size());
        result += shorten(text.substr(start, end - start));
        if (end < text.size()) result += ' ';
        start = end + 1;
    }
    return result;
}

}  // namespace ocpctl
