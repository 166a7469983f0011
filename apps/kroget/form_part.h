// One field or file of a form, as -F and --form-string give it.
#pragma once

#include <optional>
#include <string>
#include <string_view>

struct FormPart {
  std::string name;
  std::string value;  // the text itself, or the path of a file, "-" being standard input
  bool file = false;
  std::optional<std::string> filename;  // sent with it
  std::string type;                     // empty: none is told

  bool isStandardInput() const { return file && value == "-"; }
};

// Parses "NAME=VALUE", "NAME=@FILE" and, for a file that is the value of a field, "NAME=<FILE"; behind FILE, which may
// stand in quotes, ";type=TYPE" and ";filename=NAME" may follow. @return what is wrong, or nothing
std::string parseFormPart(std::string_view text, FormPart* part);

// Parses "NAME=VALUE", with any value. @return what is wrong, or nothing
std::string parseFormString(std::string_view text, FormPart* part);

// The header lines of a part, with the empty one (RFC 7578 section 4).
std::string headOf(const FormPart& part);
