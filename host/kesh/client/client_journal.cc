#include "client/client_journal.h"

#include <charconv>

#include "client/line_stream.h"
#include "items/item_text.h"

namespace kesh
{

using nlohmann::json;

namespace
{

/// Cuts what stands before the next `separator` off the front. False if there is none.
bool cut(std::string_view &from, char separator, std::string_view &part)
{
  const size_t end = from.find(separator);
  if (end == std::string_view::npos) {
    return false;
  }
  part = from.substr(0, end);
  from.remove_prefix(end + 1);
  return true;
}

template <typename number>
bool read_number(std::string_view from, number &value)
{
  const char *end = from.data() + from.size();
  const auto result = std::from_chars(from.data(), end, value);
  return result.ec == std::errc() && result.ptr == end;
}

template <typename number>
bool cut_number(std::string_view &from, char separator, number &value)
{
  std::string_view part;
  return cut(from, separator, part) && read_number(part, value);
}

std::string hex_of(std::string_view bytes)
{
  std::string text;
  for (const char byte : bytes) {
    text += hex_text(static_cast<uint8_t>(byte), 2);
  }
  return text;
}

std::string json_line(const journal_row &row)
{
  json fields = {{"line", row.line}, {"n", row.n},   {"hash", row.hash},         {"node", row.node},
                 {"life", row.life}, {"at", row.at}, {"sequence", row.sequence}, {"attempt", row.attempt},
                 {"text", row.text}};
  try {
    return fields.dump() + '\n';
  } catch (const json::type_error &) {  // the text is not UTF-8
    fields.erase("text");
    fields["text_hex"] = hex_of(row.text);
    return fields.dump() + '\n';
  }
}

bool print_row(const std::string &line, journal_form form, journal_row &row)
{
  if (line.starts_with("# ")) {
    fprintf(stderr, "kesh: %s\n", line.c_str() + 2);
    return true;
  }
  if (!journal_row_parse(line, row)) {
    fprintf(stderr, "kesh: a row of the journal arrived damaged\n");
    return false;
  }
  return write_out(journal_row_text(row, form));
}

}  // namespace

bool journal_row_parse(std::string_view from, journal_row &row)
{
  if (!cut_number(from, '\t', row.line) || !cut_number(from, '\t', row.n) || !cut(from, '\t', row.hash) ||
      !cut(from, '\t', row.tag) || !cut_number(from, '\t', row.attempt) || !cut_number(from, '\t', row.at)) {
    return false;
  }
  row.escaped_text = from;
  std::string_view tag = row.tag;
  return cut_number(tag, '.', row.node) && cut(tag, '.', row.life) && read_number(tag, row.sequence) &&
         text_unescape(from, row.text);
}

std::string journal_row_text(const journal_row &row, journal_form form)
{
  std::string result;
  switch (form) {
  case journal_form::text:
    result = row.text;
    break;
  case journal_form::json:
    return json_line(row);
  case journal_form::tags:
    result.append(std::to_string(row.line)).append(1, '\t').append(row.hash).append(1, '\t').append(row.tag);
    result.append(1, '\t').append(std::to_string(row.attempt)).append(1, '\t').append(row.escaped_text);
    break;
  }
  result += '\n';
  return result;
}

int journal_command(const std::string &socket_path, const journal_options &options)
{
  journal_row row;
  return print_stream(socket_path, {{"op", "journal"}, {"since", options.since}, {"follow", options.follow}},
                      options.follow, [&](const std::string &line) { return print_row(line, options.form, row); });
}

}  // namespace kesh
