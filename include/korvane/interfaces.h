/// @file
/// Reference-counted interfaces of libKorvane.
///
/// The order in which virtual operations are declared below is part of the
/// binary interface: programs compiled against it call the library's objects
/// through these slots, and the library calls objects that applications
/// implement through the same slots. Never reorder, insert or remove one.
#ifndef KORVANE_INTERFACES_H
#define KORVANE_INTERFACES_H

#include <cstdint>
#include <cstring>

#include "korvane/system.h"
#include "korvane/types.h"

/// Root interface: lookup by interface name and reference counting.
class IBase {
public:
    /// Slot 0. On a name this object answers to, stores the object in *out,
    /// adds a reference and returns true; otherwise false, *out untouched.
    virtual bool queryInterface(const char* name, void** out) = 0;
    /// Slot 1. Adds a reference; returns the new count.
    virtual int64_t addRef() = 0;
    /// Slot 2. Drops a reference; at 0 the object deletes itself. Returns the new count.
    virtual int64_t releaseRef() = 0;

protected:
    ~IBase() = default; ///< objects die through releaseRef, never through IBase
};

/// Reads a variant without knowing its layout. The text getters follow the
/// caller-buffer protocol: a null buffer asks for the size (text length + 1);
/// a large enough buffer receives the text and its NUL; a buffer that is too
/// small gets nothing, the function returns false and `length` is unchanged.
class IVariantRead : public IBase {
public:
    static constexpr const char* interfaceName = "IVariantRead"; ///< the name queryInterface answers to

    virtual bool getType(char* buffer, unsigned long& length) = 0; ///< slot 3: type name
    virtual bool getValue(unsigned char& value) = 0;                ///< slot 4
    virtual bool getValue(char& value) = 0;                         ///< slot 5
    virtual bool getValue(unsigned short& value) = 0;               ///< slot 6
    virtual bool getValue(short& value) = 0;                        ///< slot 7
    virtual bool getValue(unsigned int& value) = 0;                 ///< slot 8
    virtual bool getValue(int& value) = 0;                          ///< slot 9
    virtual bool getValue(unsigned long& value) = 0;                ///< slot 10
    virtual bool getValue(long& value) = 0;                         ///< slot 11
    virtual bool getValue(unsigned long long& value) = 0;           ///< slot 12
    virtual bool getValue(long long& value) = 0;                    ///< slot 13
    virtual bool getValue(float& value) = 0;                        ///< slot 14
    virtual bool getValue(double& value) = 0;                       ///< slot 15
    virtual bool getValue(char* buffer, unsigned long& length) = 0; ///< slot 16: value as text
    virtual bool getValue(bool& value) = 0;                         ///< slot 17

protected:
    virtual ~IVariantRead() {} // slots 18 and 19
};

/// Writes a variant: its type by name, or a value of any scalar type or text.
/// `keep` is passed to the variant setters as their flag.
class IVariantWrite : public IBase {
public:
    static constexpr const char* interfaceName = "IVariantWrite"; ///< the name queryInterface answers to

    virtual bool setType(const char* name) = 0;                     ///< slot 3
    virtual bool setValue(unsigned char value, bool keep) = 0;      ///< slot 4
    virtual bool setValue(char value, bool keep) = 0;               ///< slot 5
    virtual bool setValue(unsigned short value, bool keep) = 0;     ///< slot 6
    virtual bool setValue(short value, bool keep) = 0;              ///< slot 7
    virtual bool setValue(unsigned int value, bool keep) = 0;       ///< slot 8
    virtual bool setValue(int value, bool keep) = 0;                ///< slot 9
    virtual bool setValue(unsigned long value, bool keep) = 0;      ///< slot 10
    virtual bool setValue(long value, bool keep) = 0;               ///< slot 11
    virtual bool setValue(unsigned long long value, bool keep) = 0; ///< slot 12
    virtual bool setValue(long long value, bool keep) = 0;          ///< slot 13
    virtual bool setValue(float value, bool keep) = 0;              ///< slot 14
    virtual bool setValue(double value, bool keep) = 0;             ///< slot 15
    virtual bool setValue(const char* value, bool keep) = 0;        ///< slot 16
    virtual bool setValue(bool value, bool keep) = 0;               ///< slot 17

protected:
    virtual ~IVariantWrite() {} // slots 18 and 19
};

namespace korvane_detail {
/// Reference counting shared by the stubs below: born with a count of 1;
/// releaseRef at 0 calls onFinalRelease (slot 20) and deletes the object. The
/// count is updated with the library's full-fence atomics, so the final
/// release sees every write made before the other releases.
template <class Interface>
class RefCountedStub : public Interface {
public:
    bool queryInterface(const char* name, void** out) override {
        if (out == nullptr || name == nullptr)
            return false;
        if (std::strcmp(name, "IBase") != 0 && std::strcmp(name, Interface::interfaceName) != 0)
            return false;
        *out = this;
        this->addRef();
        return true;
    }
    int64_t addRef() override { return os_thread_sync_fetch_add(&m_refCount); }
    int64_t releaseRef() override {
        const int64_t count = os_thread_sync_fetch_sub(&m_refCount);
        if (count == 0) {
            onFinalRelease();
            delete this;
        }
        return count;
    }
    virtual void onFinalRelease() {} // slot 20: hook for derived classes

protected:
    RefCountedStub() = default;
    ~RefCountedStub() override {}

private:
    int64_t m_refCount = 1;
};
} // namespace korvane_detail

/// Base for IVariantRead implementations: answers "IBase" and "IVariantRead".
class IVariantReadStub : public korvane_detail::RefCountedStub<IVariantRead> {
protected:
    ~IVariantReadStub() override {}
};

/// Base for IVariantWrite implementations: answers "IBase" and "IVariantWrite".
class IVariantWriteStub : public korvane_detail::RefCountedStub<IVariantWrite> {
protected:
    ~IVariantWriteStub() override {}
};

/// Callback of the filesystem walk, implemented and owned by the application.
/// The walk calls only onFile (slot 3) and onFolder (slot 4); the root
/// operations in slots 0 to 2 are never called by the library, and default to
/// an object that is not reference counted.
class IWalkThroughCallback : public IBase {
public:
    bool queryInterface(const char*, void**) override { return false; }
    int64_t addRef() override { return 1; }
    int64_t releaseRef() override { return 1; }
    /// An entry that is not a folder (symbolic links included, never followed).
    virtual void onFile(const char* relativePath, const char* root) = 0;
    /// A folder, before its entries; the starting folder included.
    virtual void onFolder(const char* relativePath, const char* root) = 0;

protected:
    virtual ~IWalkThroughCallback() {}
};

#endif
