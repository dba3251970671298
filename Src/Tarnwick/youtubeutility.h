// Choosing a format from what a resolved video page offers.
//
// A format has an id, a decimal number. The list of formats is items separated by ",", each an id,
// "/" and a frame size: 34/640x360,5/320x240. The map of addresses is entries separated by ",",
// each an id, "|" and an address, which holds neither "," nor "|":
// 34|http://host/one,5|http://host/two.
//
// Both operations depend on their arguments only; any thread may call.
#pragma once

#include <string>

// The id of the format whose frame area comes closest to width * height; the first of equals. Width
// and height -1 choose the smallest frame. Areas are 32-bit numbers and wrap. Items without an id
// and a frame size of two numbers are passed over; a list without any other item ends the process
// with the standard assertion.
std::string GetYoutubeVideoMapIDForSize(int width, int height, std::string strfmtmap);

// Chooses a format from a video information text, and returns its address. Of the formats listed
// (fmt_list or fmt_map, the first that is not empty), the first of 35, 34 and 5 is taken; if none
// of them is listed, or with `bUseLastFormat`, the last of the list; without a list, the first of
// the map. The map entry taken is the first that begins with the id.
//
// Returns the empty string when the map has no such entry, or the text says status=fail. An address
// is also stored in `strDownloadUrl`, and a file name made of the title, with ".flv" behind it, in
// `strFileName`; what is not found, and after status=fail both, stays as it was. A title whose
// characters are all invalid in names gives the name ".flv".
//
// A text without any line ends the process with the standard assertion.
std::string ParseYoutubeVideoInfo(std::string strVideoInfo, bool bUseLastFormat,
                                  std::string& strFileName, std::string& strDownloadUrl);
