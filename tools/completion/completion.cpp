#include "completion.h"

#include <iostream>
#include <sstream>
#include <vector>

namespace {

// Names as typed, dashes included; none of an argument without dashes.
std::vector<std::string> namesOf(const CLI::Option& option) {
    std::vector<std::string> names;
    for (const std::string& name : option.get_snames()) {
        names.push_back("-" + name);
    }
    for (const std::string& name : option.get_lnames()) {
        names.push_back("--" + name);
    }
    return names;
}

bool isShown(const CLI::Option* option) {
    return option->get_positional() || !option->get_group().empty();
}

// Options of the program and of the commands on the way to `app`, where they may stand behind it as well.
std::vector<const CLI::Option*> inheritedOptions(const CLI::App& app) {
    std::vector<const CLI::Option*> options;
    for (const CLI::App* one = &app; one->get_parent() != nullptr && one->get_parent()->get_fallthrough();
         one = one->get_parent()) {
        const auto more = one->get_parent()->get_options([](const CLI::Option* option) {
            return option->nonpositional() && isShown(option) && option->get_name() != "--help";
        });
        options.insert(options.end(), more.begin(), more.end());
    }
    return options;
}

bool takesValue(const CLI::Option& option) {
    return option.get_items_expected_max() > 0 && option.get_type_size_max() > 0;
}

// The values of an option that has a fixed set: CLI11 shows it as "{on,off}" in the type's name.
std::vector<std::string> valuesOf(const CLI::Option& option) {
    const std::string type = option.get_type_name();
    const auto open = type.find('{');
    const auto close = type.find('}', open);
    std::vector<std::string> values;
    if (open != std::string::npos && close != std::string::npos) {
        std::istringstream list(type.substr(open + 1, close - open - 1));
        for (std::string value; std::getline(list, value, ',');) {
            values.push_back(value);
        }
    }
    return values;
}

// Everything that can stand behind `app`'s name as a word of its own.
std::string wordsOf(const CLI::App& app) {
    std::string words;
    const auto add = [&](const std::string& word) { words += (words.empty() ? "" : " ") + word; };
    for (const CLI::Option* option : app.get_options(isShown)) {
        for (const std::string& name : namesOf(*option)) {
            add(name);
        }
        if (option->get_positional()) {
            for (const std::string& value : valuesOf(*option)) {
                add(value);
            }
        }
    }
    for (const CLI::App* command : app.get_subcommands({})) {
        add(command->get_name());
    }
    for (const CLI::Option* option : inheritedOptions(app)) {
        for (const std::string& name : namesOf(*option)) {
            add(name);
        }
    }
    return words;
}

// In zsh's single quotes, with what _arguments would read as its own escaped.
std::string zshText(const std::string& text) {
    std::string result;
    for (const char c : text) {
        if (c == '\'') {
            result += "'\\''";
            continue;
        }
        if (c == '[' || c == ']' || c == ':' || c == '\\') {
            result += '\\';
        }
        result += c;
    }
    return result;
}

std::string zshAction(const CLI::Option& option) {
    std::string values;
    for (const std::string& value : valuesOf(option)) {
        values += (values.empty() ? "" : " ") + value;
    }
    return values.empty() ? "_default" : "(" + values + ")";
}

void zshOption(std::ostream& out, const CLI::Option& option) {
    for (const std::string& name : namesOf(option)) {
        out << " \\\n      '" << name << "[" << zshText(option.get_description()) << "]";
        if (takesValue(option)) {
            out << ":value:" << zshAction(option);
        }
        out << "'";
    }
    if (option.get_positional()) {
        out << " \\\n      '*:" << zshText(option.get_description()) << ":" << zshAction(option) << "'";
    }
}

void zshOptions(std::ostream& out, const CLI::App& app) {
    for (const CLI::Option* option : app.get_options(isShown)) {
        zshOption(out, *option);
    }
    for (const CLI::Option* option : inheritedOptions(app)) {
        zshOption(out, *option);
    }
}

// What can stand behind each command, by the words that lead to it.
void bashCases(std::ostream& out, const CLI::App& app, const std::string& path) {
    for (const CLI::App* command : app.get_subcommands({})) {
        const std::string here = path + " " + command->get_name();
        out << "      '" << here << "') path='" << here << "' words='" << wordsOf(*command) << "' ;;\n";
        bashCases(out, *command, here);
    }
}

void zshArguments(std::ostream& out, const CLI::App& app) {
    const auto commands = app.get_subcommands({});
    if (commands.empty()) {
        out << "_arguments";
        zshOptions(out, app);
        return;
    }
    out << "state=; _arguments -C";
    zshOptions(out, app);
    out << " \\\n      '1:command:((";
    for (const CLI::App* command : commands) {
        out << " " << command->get_name() << "\\:\"" << zshText(command->get_description()) << "\"";
    }
    out << "))' \\\n      '*::argument:->argument'\n  [[ $state = argument ]] || return\n  case $words[1] "
           "in\n";
    for (const CLI::App* command : commands) {
        out << "    " << command->get_name() << ") ";
        zshArguments(out, *command);
        out << " ;;\n";
    }
    out << "  esac";
}

}  // namespace

std::string bashCompletion(const CLI::App& app) {
    std::ostringstream out;
    out << "_" << app.get_name() << "() {\n"
        << "  local word path='' words='" << wordsOf(app) << "'\n"
        << "  for word in \"${COMP_WORDS[@]:1:COMP_CWORD-1}\"; do\n"
        << "    case \"$path $word\" in\n";
    bashCases(out, app, "");
    out << "      *) ;;\n    esac\n  done\n"
        << "  COMPREPLY=($(compgen -W \"$words\" -- \"${COMP_WORDS[COMP_CWORD]}\"))\n}\n"
        << "complete -o default -F _" << app.get_name() << " " << app.get_name() << "\n";
    return out.str();
}

std::string zshCompletion(const CLI::App& app) {
    std::ostringstream out;
    out << "_" << app.get_name() << "() {\n  local curcontext=$curcontext state line\n  ";
    zshArguments(out, app);
    out << "\n}\n";
    return out.str();
}

void addCompletion(CLI::App& app) {
    app.add_option_function<std::string>(
           "--completion",
           [&app](const std::string& shell) {
               std::cout << (shell == "zsh" ? zshCompletion(app) : bashCompletion(app));
               throw CLI::Success();
           })
        ->check(CLI::IsMember({"bash", "zsh"}))
        ->trigger_on_parse()
        ->group("");
}
