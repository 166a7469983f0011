// The files of one form: taken apart as they come, and stored all together or not at all.
#pragma once

#include <krohttp/krohttp.h>

#include <cstdint>
#include <list>
#include <string>

#include "incoming_file.h"

class Receipt {
 public:
  // @param limit  bytes that the files may have together, 0: any number
  Receipt(HttpRequest* request, uint64_t limit);
  ~Receipt();
  Receipt(const Receipt&) = delete;
  Receipt& operator=(const Receipt&) = delete;

  // Returns 0, or the status code of the refusal.
  unsigned open(const std::string& directory);
  // Reads what has arrived. Returns 0, or the status code of the refusal.
  unsigned read();
  // The whole body has been read, and it was in order.
  bool isComplete() const;
  // Gives the files their names. Returns 0, or the status code of the refusal: then there are none.
  unsigned store();

  const std::list<IncomingFile>& files() const { return files_; }

 private:
  // The reader's handlers find their receipt behind it.
  struct Reader : HttpMultipart {
    Receipt* receipt;
  };
  enum class Part { kFile, kField };

  static int onPart(HttpRequest* part);
  static int onPartBody(HttpRequest* part, FILE* body);
  unsigned begin(HttpRequest* part);
  unsigned take(const char* bytes, size_t count);
  unsigned takeOfFile(const char* bytes, size_t count);
  unsigned createFile();
  unsigned endPart();
  void giveWay();

  HttpRequest* request_;
  uint64_t limit_;
  OwnedDescriptor directory_;
  Reader reader_{};
  std::list<IncomingFile> files_;
  Part part_ = Part::kField;
  std::string name_;      // of the file that the current part is; given by the client
  bool created_ = false;  // that file stands at the end of the list
  unsigned parts_ = 0;
  uint64_t fileBytes_ = 0;
  uint64_t fieldBytes_ = 0;
  size_t turnBytes_ = 0;  // read since others had their turn
  unsigned refusal_ = 0;
};
