#include <iostream>

#include "Cli.h"

namespace tarnwell::cli {

void Output::print(const nlohmann::ordered_json& value, const std::string& text) const {
  if (options_.json) {
    std::cout << value.dump() << '\n';
  } else {
    std::cout << text << '\n';
  }
}

std::string plainText(const nlohmann::ordered_json& value) {
  if (value.is_string()) return value.get<std::string>();
  return value.dump();
}

Date parseInstant(std::string_view text) {
  if (auto date = Date::parseISO8601(text)) return *date;
  throw InputError("\"" + std::string(text) + "\" is not an ISO 8601 date or time");
}

}  // namespace tarnwell::cli
