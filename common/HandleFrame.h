// The destroy half of the handle frame every family follows: destroy takes the
// address of the caller's handle variable, ignores a variable holding null,
// deletes the object through its virtual destructor and nulls the variable.
#ifndef KORVANE_HANDLE_FRAME_H
#define KORVANE_HANDLE_FRAME_H

namespace korvane {

template <class Handle>
void destroyHandle(Handle** handle) {
    if (handle == nullptr || *handle == nullptr)
        return;
    delete *handle;
    *handle = nullptr;
}

} // namespace korvane

#endif
