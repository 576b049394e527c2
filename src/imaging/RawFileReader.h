// Reading the raw scan file back: the header for image information and
// memory set-up, and the whole file as an offscreen image for the transfers.
//
// Nothing in the file is trusted: every reader here answers false or null
// for a file that is short, not a raw file, or describes an image we cannot
// hold, and none reads past the bytes the file really has.
#pragma once

#include <memory>
#include <string>

#include "imaging/OffscreenImage.h"
#include "scanlib/RawFileHeader.h"

namespace zentary {

// True when the file's first four bytes, as one host-order word, are the
// raw signature. A missing, unreadable or shorter file is not a raw file.
bool isScanRawFile(const std::string& path);

// Fills `header` with the first 32 bytes of the file. False (header
// untouched) when 32 bytes cannot be read. The signature is not compared:
// image information reads headers whatever they say.
bool readRawScanFileHeader(RawFileHeader* header, const std::string& fromFileAtPath);
// The same from an open descriptor, whose file offset is left where it was.
bool readRawScanFileHeader(RawFileHeader* header, int fromFile);

// A new image from a raw scan file, or null when the file is missing, not a
// raw file, or describes an image we refuse (see RawFileReader.cpp).
std::unique_ptr<OffscreenImage> newGWorldFromRawFile(const std::string& path);

}  // namespace zentary
