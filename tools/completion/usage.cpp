#include "usage.h"

#include <algorithm>
#include <cstdio>
#include <numeric>
#include <sstream>
#include <string>
#include <vector>

namespace {

constexpr std::size_t kColumns = 80;
constexpr std::size_t kNameColumns = 30;
constexpr std::size_t kLongestWord = 32;    // a longer one is near none
constexpr std::size_t kLettersAnError = 3;  // so many letters of a word excuse one that is wrong

// Words in lines of what is left beside the names.
std::string wrapped(const std::string& text) {
    std::istringstream words(text);
    std::string result;
    std::size_t column = 0;
    for (std::string word; words >> word; column += word.size()) {
        if (column > 0 && column + 1 + word.size() > kColumns - kNameColumns) {
            result += '\n';
            column = 0;
        } else if (column > 0) {
            result += ' ';
            ++column;
        }
        result += word;
    }
    return result;
}

class HelpFormatter : public CLI::Formatter {
  public:
    HelpFormatter() {
        column_width(kNameColumns);
        label("Positionals", "Arguments");
        label("SUBCOMMAND", "COMMAND");
    }
    // The placeholder alone: what is allowed stands in the sentence.
    std::string make_option_opts(const CLI::Option* option) const override {
        const std::string type = option->get_type_name();
        const bool shown = option->get_type_size() != 0 && option->nonpositional();
        const bool many = option->get_positional() && option->get_expected_max() > 1;
        return (shown ? " " + type.substr(0, type.find(':')) : "") + (many ? "..." : "");
    }
    std::string make_option_desc(const CLI::Option* option) const override {
        std::string text = option->get_description();
        if (!option->get_default_str().empty()) {
            text += " (default: " + option->get_default_str() + ")";
        }
        if (!option->get_envname().empty()) {
            text += " (environment: " + option->get_envname() + ")";
        }
        return wrapped(text);
    }
    std::string make_subcommand(const CLI::App* command) const override {
        std::ostringstream out;
        CLI::detail::format_help(out, command->get_name(), wrapped(command->get_description()), kNameColumns);
        return out.str();
    }
};

// How many letters are to be changed, added or left out to make one word of the other (Levenshtein).
std::size_t distance(const std::string& one, const std::string& other) {
    std::vector<std::size_t> row(other.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 0; i < one.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i + 1;
        for (std::size_t j = 0; j < other.size(); ++j) {
            const std::size_t changed = diagonal + (one[i] == other[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({changed, row[j] + 1, row[j + 1] + 1});
        }
    }
    return row.back();
}

// The one of `words` that was meant, as far as can be guessed; empty where none is near.
std::string nearest(const std::string& word, const std::vector<std::string>& words) {
    std::string best;
    std::size_t least = word.size() > kLongestWord ? 0 : word.size() / kLettersAnError + 1;
    for (const std::string& candidate : words) {
        if (const std::size_t far = distance(word, candidate); far < least) {
            best = candidate;
            least = far;
        }
    }
    const auto longer = [&](const std::string& candidate) { return candidate.starts_with(word); };
    return best.empty() && std::ranges::count_if(words, longer) == 1 ? *std::ranges::find_if(words, longer)
                                                                     : best;
}

std::vector<std::string> optionsOf(const CLI::App& app) {
    std::vector<std::string> names;
    for (const CLI::Option* option : app.get_options()) {
        for (const std::string& name : option->get_lnames()) {
            names.push_back("--" + name);
        }
    }
    return names;
}

std::string unknownOption(const CLI::App& app, const CLI::App& command, const std::string& word) {
    std::vector<std::string> names = optionsOf(app);
    if (&command != &app) {
        std::ranges::copy(optionsOf(command), std::back_inserter(names));
    }
    const std::string meant = nearest(word.substr(0, word.find('=')), names);
    return "\"" + word + "\" is not an option" + (meant.empty() ? "" : "; did you mean \"" + meant + "\"?");
}

std::string commandsOf(const CLI::App& app) {
    std::string list;
    for (const CLI::App* command : app.get_subcommands({})) {
        list += (list.empty() ? "" : ", ") + command->get_name();
    }
    return list;
}

std::string unknownCommand(const CLI::App& app, const std::string& word) {
    std::vector<std::string> names;
    for (const CLI::App* command : app.get_subcommands({})) {
        names.push_back(command->get_name());
    }
    const std::string meant = nearest(word, names);
    return "\"" + word + "\" is not a command" +
           (meant.empty() ? "; the commands are " + commandsOf(app) : "; did you mean \"" + meant + "\"?");
}

}  // namespace

void shapeHelp(CLI::App& app) {
    app.formatter(std::make_shared<HelpFormatter>());
    app.set_help_flag("-h,--help", "Print this help and exit.");
}

int reportUsage(const CLI::App& app, const CLI::ParseError& error, int mistake) {
    if (error.get_exit_code() == 0) {
        return app.exit(error);
    }
    const CLI::App* command = &app;
    std::string name = app.get_name();
    for (auto chosen = app.get_subcommands(); !chosen.empty(); chosen = command->get_subcommands()) {
        command = chosen.front();
        name += " " + command->get_name();
    }
    const bool hasCommands = !command->get_subcommands({}).empty();
    std::string problem = error.what();
    if (error.get_name() == "RequiredError" && hasCommands) {
        problem = "a command is missing; the commands are " + commandsOf(*command);
    }
    // CLI11 tells what is missing before it tells what it did not understand.
    if (const auto unknown = app.remaining(true); !unknown.empty()) {
        const std::string& word = unknown.front();
        if (word.size() > 1 && word.front() == '-') {
            problem = unknownOption(app, *command, word);
        } else if (hasCommands) {
            problem = unknownCommand(*command, word);
        } else {
            problem = "\"" + word + "\" is one argument too many";
        }
    }
    fprintf(stderr, "%s: %s\nSee \"%s --help\".\n", name.c_str(), problem.c_str(), name.c_str());
    return mistake;
}
