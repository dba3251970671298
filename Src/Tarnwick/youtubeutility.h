// What the video information text says of formats, and the choice of one.
//
// A format has an id, a decimal number. The list of formats is items separated by ",", each an id,
// "/" and a frame size: 34/640x360,5/320x240. The map of addresses is entries separated by ",",
// each an id, "|" and an address, which holds neither "," nor "|":
// 34|http://host/one,5|http://host/two.
//
// The text comes from a site: all operations accept any bytes, except where an assertion is named.
// They depend on their arguments only; any thread may call.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// An item of the list of formats.
struct ListedFormat {
    std::string id{};
    bool hasFrame = false;                 // a frame size of two sides stands behind the id
    std::optional<std::uint32_t> width{};  // sides, pixels, modulo 2^32; nothing: without a digit
    std::optional<std::uint32_t> height{};
};

// An entry of the map of addresses.
struct MapEntry {
    std::string text{};  // the whole entry, without white space around it
    std::string id{};
    std::string address{};
};

// The lines of an information text, without empty ones and without white space around them.
std::vector<std::string> TrimmedLines(const std::string& text);

// What stands behind `key`, with which the line begins; empty when it begins differently.
std::string ValueOf(const std::string& line, const std::string& key);

// The formats listed in the lines of an information text: fmt_list or fmt_map, the first of them
// that is not empty. Items without an id are left out.
std::vector<ListedFormat> ReadFormatList(const std::vector<std::string>& lines);

// The entries of a map; those without an address are left out.
std::vector<MapEntry> ReadAddressMap(const std::string& map);

// How far the area of a frame is from that of the wanted one, pixels. Areas are 32-bit numbers and
// wrap.
std::int64_t FrameDistance(std::uint32_t width, std::uint32_t height, int wantedWidth,
                           int wantedHeight);

// The id of the format whose frame area comes closest to width * height; the first of equals. Width
// and height -1 choose the smallest frame. A side without a digit counts as 0. Items without an id
// and a frame size are passed over; a list without any other item fails the standard assertion.
std::string GetYoutubeVideoMapIDForSize(int width, int height, std::string strfmtmap);

// Chooses a format from a video information text, and returns its address. Of the formats listed,
// the first of 35, 34 and 5 is chosen; if none of them is listed, or with `bUseLastFormat`, the
// last of the list; without a list, the first of the map. The address is that of the first entry of
// the map that begins with the id.
//
// Returns the empty string when the map has no such entry, or the text says status=fail. An address
// is also stored in `strDownloadUrl`, and a file name made from the title, with ".flv" behind it,
// in `strFileName`; what is not found, and after status=fail both, keeps its value. A title whose
// characters are all invalid in names gives the name ".flv".
//
// A text without any line fails the standard assertion.
std::string ParseYoutubeVideoInfo(std::string strVideoInfo, bool bUseLastFormat,
                                  std::string& strFileName, std::string& strDownloadUrl);
