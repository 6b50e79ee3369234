// A file descriptor owned by the code for one scope: closed on the way out
// unless handed on with release(). `Close` is the close call the family goes
// through (the file functions close through their own wrapper).
#ifndef KORVANE_UNIQUE_DESCRIPTOR_H
#define KORVANE_UNIQUE_DESCRIPTOR_H

namespace korvane {

template <int (*Close)(int)>
class UniqueDescriptor {
public:
    explicit UniqueDescriptor(int fd) : m_fd(fd) {}
    ~UniqueDescriptor() {
        if (m_fd != -1)
            Close(m_fd);
    }
    UniqueDescriptor(const UniqueDescriptor&) = delete;
    UniqueDescriptor& operator=(const UniqueDescriptor&) = delete;

    bool isOpen() const { return m_fd != -1; }
    int get() const { return m_fd; }
    int release() {
        const int fd = m_fd;
        m_fd = -1;
        return fd;
    }

private:
    int m_fd;
};

} // namespace korvane

#endif
