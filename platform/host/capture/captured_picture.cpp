#include "capture/captured_picture.h"

namespace zu3host {
namespace {

thread_local const CapturedPicture* picture_in_callback = nullptr;

} // namespace

CapturedPictureInCallback::CapturedPictureInCallback(const CapturedPicture& picture)
{
    picture_in_callback = &picture;
}

CapturedPictureInCallback::~CapturedPictureInCallback()
{
    picture_in_callback = nullptr;
}

const CapturedPicture* captured_picture_in_callback()
{
    return picture_in_callback && picture_in_callback->data ? picture_in_callback : nullptr;
}

} // namespace zu3host
