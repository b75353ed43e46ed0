#include "png_file.h"

#include <png.h>

#include "exit_code.h"

namespace client {
namespace {

constexpr uint32_t greatest_side = 4096;

/** libpng's control record, released at the end. */
struct PngImage : png_image {
    PngImage() : png_image{} { version = PNG_IMAGE_VERSION; }
    ~PngImage() { png_image_free(this); }
    PngImage(const PngImage&) = delete;
    PngImage& operator=(const PngImage&) = delete;
};

[[noreturn]] void fail(const std::string& what, const PngImage& image)
{
    throw Failure("cannot " + what + ": " + image.message);
}

} // namespace

RgbaPicture read_png(const std::string& path)
{
    PngImage image;
    if (!png_image_begin_read_from_file(&image, path.c_str()))
        fail("read the picture " + path, image);
    if (image.width > greatest_side || image.height > greatest_side)
        throw Failure("cannot use the picture " + path + ": it is larger than 4096x4096");
    image.format = PNG_FORMAT_RGBA;
    RgbaPicture picture{{image.width, image.height}, std::vector<uint8_t>(PNG_IMAGE_SIZE(image))};
    if (!png_image_finish_read(&image, nullptr, picture.bytes.data(), 0, nullptr))
        fail("read the picture " + path, image);
    return picture;
}

std::vector<uint8_t> encode_png(Size size, const std::vector<uint8_t>& bgr)
{
    PngImage image;
    image.width = size.width;
    image.height = size.height;
    image.format = PNG_FORMAT_BGR;
    // Screens are drawn, not photographed: the fast setting costs little size and saves most of the time.
    image.flags = PNG_IMAGE_FLAG_FAST;
    std::vector<uint8_t> file(PNG_IMAGE_PNG_SIZE_MAX(image));
    png_alloc_size_t length = file.size();
    if (!png_image_write_to_memory(&image, file.data(), &length, 0, bgr.data(), 0, nullptr))
        fail("make a PNG picture", image);
    file.resize(length);
    return file;
}

} // namespace client
