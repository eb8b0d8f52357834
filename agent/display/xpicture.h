// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <string>
#include <vector>

/** A picture of three bytes per pixel: red, green, blue. */
struct Picture
{
    std::uint16_t width = 0;
    std::uint16_t height = 0;
    std::vector<std::uint8_t> pixels;
};

/**
 * Takes a picture of the whole screen of an X display. Blocks until the X server answers, which may be never, so only a
 * program that somebody else kills after a timeout may call it.
 *
 * @param number  of the display
 * @param error   set only on failure: one sentence
 */
[[nodiscard]] bool takePicture(unsigned number, const std::string &cookie, Picture *picture, std::string *error);
