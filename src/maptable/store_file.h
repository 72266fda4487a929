// Puts a text into the store's file without losing what it holds.
//
// The text is written beside the file and renamed over it, so that at any moment, and
// after a full disk or a crash, the file holds the old text or the new one. Owner, mode
// and a symbolic link stay as they were, as far as the process may see to that. Where
// the folder takes no second file, or lets none be renamed, the file is overwritten.
//
// A crash between the two steps leaves a file `.NAME.XXXXXX` beside the store.
//
// Ownership: nothing is kept. Threads: any; of two that write one file the last wins.
// Failure: the result, with errno. It blocks until the text has reached the disk.
#pragma once

#include <string_view>

#include "context/vesk_request.h"

enum class StoreWrite {
  done,
  unopened,  // the file can't be opened to write; it is as it was
  kept,      // the text could not be written; the file is as it was
  inDoubt,   // the file was overwritten, and that broke off
};

// The file is made if there is none. Opened through `fileOpen` of the request.
[[nodiscard]] StoreWrite writeStoreFile(vesk_request* req, const char* path,
                                        std::string_view text);
