// SPDX-License-Identifier: MIT
#include "agent/display/xauthority.h"
#include "agent/display/xpicture.h"
#include "support/processhardening.h"
#include "support/standardstreams.h"

#include <charconv>
#include <cstdio>
#include <fstream>
#include <string>
#include <string_view>

#include <png.h>

/*
 * take-screenshot NUMBER AUTHORITY FILE: writes a picture of display NUMBER as a PNG file. It is a program of its own,
 * because libxcb waits without a timeout for an X server that does not answer, and a child process can be killed.
 */

namespace {

/** A session's authority file has two short entries. The bound is for a file that is something else. */
constexpr std::streamsize kMaxAuthorityBytes = 65536;

int complain(const std::string &text)
{
    std::fprintf(stderr, "%s\n", text.c_str());
    return 1;
}

std::string readStart(const char *path)
{
    std::ifstream file(path, std::ios::binary);
    std::string text(kMaxAuthorityBytes, '\0');
    file.read(text.data(), kMaxAuthorityBytes);
    text.resize(static_cast<std::size_t>(file.gcount()));
    return text;
}

bool writePng(const Picture &picture, const char *path, std::string *error)
{
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = picture.width;
    image.height = picture.height;
    image.format = PNG_FORMAT_RGB;
    image.flags = PNG_IMAGE_FLAG_FAST;
    if (png_image_write_to_file(&image, path, 0, picture.pixels.data(), 0, nullptr) == 0) {
        *error = std::string("Failed to write to the file \"") + path + "\": " + image.message;
        return false;
    }
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    disableCoreFiles();
    disableInspection();
    ensureStandardStreams();
    const std::string_view display = argc == 4 ? argv[1] : "";
    unsigned number = 0;
    if (std::from_chars(display.data(), display.data() + display.size(), number).ptr !=
            display.data() + display.size() ||
        display.empty()) {
        return complain("usage: take-screenshot NUMBER AUTHORITY FILE");
    }
    const std::optional<std::string> cookie = findXCookie(readStart(argv[2]), display);
    if (!cookie) {
        return complain("There is no cookie for display " + std::string(display) + " in \"" + argv[2] + '"');
    }
    Picture picture;
    std::string error;
    if (!takePicture(number, *cookie, &picture, &error) || !writePng(picture, argv[3], &error)) {
        return complain(error);
    }
    return 0;
}
