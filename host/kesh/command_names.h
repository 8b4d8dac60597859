/// What is told about a command line that cannot be parsed.
#pragma once

#include <string>

namespace CLI
{
class App;
}

namespace kesh
{

/// "unknown command stauts; did you mean status?", or the same of an option; empty if every word is known.
std::string unknown_word(const CLI::App &parsed);

}  // namespace kesh
