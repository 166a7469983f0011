// What uploads look like in a browser, and to a program. The form is site/upload.html, with its style and its script
// put into it by the build: it needs nothing but itself, at whatever path it is shown.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct StoredFile {
  std::string name;
  uint64_t bytes;
  std::string sha256;
};

// Puts the form together. @p limit: bytes that the files may have together, 0 for any number.
void uploadPageSetUp(uint64_t limit);

// The Content-Security-Policy of the pages: they load nothing, and run no script but their own.
const std::string& uploadPolicy();

// The form.
const std::string& uploadFormPage();

// The answers to a form that was sent without a script.
std::string uploadStoredPage(const std::vector<StoredFile>& files);
std::string uploadRefusedPage(const std::string& reason);

// {"files":[{"name":"...","bytes":N,"sha256":"..."}]} and a line feed. The names are valid UTF-8.
std::string uploadStoredJson(const std::vector<StoredFile>& files);
