#include "files/png_file.h"

#include <cerrno>
#include <png.h>

#include "process/messages.h"

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

[[noreturn]] void fail_picture(const std::string& action, const std::string& reason)
{
    throw Failure("cannot " + action + ": " + reason);
}

/** Explains a message of libpng. */
std::string explained(const std::string& said)
{
    if (said == "Not a PNG file")
        return "it is not a PNG picture; convert it to PNG";
    if (said == "Read Error" || said == "read beyond end of data")
        return "it ends too early to be a whole PNG picture";
    return "it is a damaged PNG picture (" + said + ")";
}

} // namespace

RgbaPicture read_png(const std::string& path)
{
    PngImage image;
    errno = 0;
    // after a failed open its message is the system's
    if (!png_image_begin_read_from_file(&image, path.c_str()))
        fail_picture("read the picture " + path, errno != 0 && error_text(errno) == image.message
                                                     ? image.message
                                                     : explained(image.message));
    if (image.width > greatest_side || image.height > greatest_side)
        throw Failure("cannot use the picture " + path + ": it is larger than 4096x4096");
    image.format = PNG_FORMAT_RGBA;
    RgbaPicture picture{{image.width, image.height}, std::vector<uint8_t>(PNG_IMAGE_SIZE(image))};
    if (!png_image_finish_read(&image, nullptr, picture.bytes.data(), 0, nullptr))
        fail_picture("read the picture " + path, explained(image.message));
    return picture;
}

std::vector<uint8_t> encode_png(Size size, const std::vector<uint8_t>& bgr)
{
    PngImage image;
    image.width = size.width;
    image.height = size.height;
    image.format = PNG_FORMAT_BGR;
    // For drawn screens the fast mode costs little size and saves most of the time.
    image.flags = PNG_IMAGE_FLAG_FAST;
    std::vector<uint8_t> file(PNG_IMAGE_PNG_SIZE_MAX(image));
    png_alloc_size_t length = file.size();
    if (!png_image_write_to_memory(&image, file.data(), &length, 0, bgr.data(), 0, nullptr))
        fail_picture("make a PNG picture", image.message);
    file.resize(length);
    return file;
}

} // namespace client
