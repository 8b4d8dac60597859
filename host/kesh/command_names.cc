#include "command_names.h"

#include <CLI/CLI.hpp>

#include "config/nearest_name.h"

namespace kesh
{

namespace
{

std::vector<std::string> option_names(const CLI::App &command)
{
  std::vector<std::string> names;
  for (const CLI::Option *option : command.get_options()) {
    for (const std::string &name : option->get_lnames()) {
      names.push_back("--" + name);
    }
  }
  return names;
}

std::vector<std::string> command_names(const CLI::App &app)
{
  std::vector<std::string> names;
  for (const CLI::App *command : app.get_subcommands([](const CLI::App *) { return true; })) {
    names.push_back(command->get_name());
  }
  return names;
}

}  // namespace

std::string unknown_word(const CLI::App &parsed)
{
  const std::vector<CLI::App *> chosen = parsed.get_subcommands();
  const std::vector<std::string> words = parsed.remaining(true);
  if (words.empty()) {
    return {};
  }
  const std::string &word = words.front();
  if (word.starts_with('-')) {
    const std::string name = word.substr(0, word.find('='));
    return "unknown option " + name + did_you_mean(name, option_names(chosen.empty() ? parsed : *chosen.front()));
  }
  return chosen.empty() ? "unknown command " + word + did_you_mean(word, command_names(parsed)) : "";
}

}  // namespace kesh
