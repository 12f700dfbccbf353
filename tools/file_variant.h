// The form in which a file is sent: as it is, compressed beforehand, or compressed on the way.
#pragma once

#include <sys/stat.h>

#include <string>

#include "tools/served_answer.h"
#include "tools/served_directory.h"

namespace tool {

struct FileVariant {
    enum EForm { PLAIN, STORED /* the file NAME.gz */, COMPRESSED /* while it is sent */ };

    EForm m_Form = PLAIN;
    FileHandle m_File;
    struct stat m_Status {};
};

// Chooses the form for a request of the file at aPath, opened as aFile. NAME.gz counts if it is a regular file that is not
// older. Text is compressed on the way unless it is so short that this saves nothing. A request with a range gets the plain
// file. Adds the header "Vary" if the form depends on the request. Throws std::bad_alloc.
FileVariant ChooseVariant(ServedAnswer& aAnswer, const ServedDirectory& aDirectory, const std::string& aPath, FileHandle aFile,
                          const struct stat& aStatus);

}  // namespace tool
