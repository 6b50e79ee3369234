// The library's reader and writer over a borrowed variant, and the pieces of
// value resolution they share with it.
#ifndef KORVANE_VARIANT_INTERFACES_H
#define KORVANE_VARIANT_INTERFACES_H

#include "automation/AutomationInternal.h"
#include "korvane/automation.h"
#include "korvane/interfaces.h"
#include "korvane/types.h"

// variant_resolve_as_bool under an internal name that says what it returns:
// the bool's raw byte (VariantResolve.cpp says why it is a byte).
unsigned char korvane_resolve_bool_byte(const tagTVARIANT* v);

// Reads the variant it is pointed at; borrows it, never frees it. Objects
// are made with a count of 1 and die through releaseRef.
class CVariantRead : public IVariantReadStub {
public:
    CVariantRead() = default;

    // Points the reader at `value` (null: no value); nothing else.
    void setWrapperValue(tagTVARIANT* value) { m_value = value; }

    bool getType(char* buffer, unsigned long& length) override;
    bool getValue(unsigned char& value) override;
    bool getValue(char& value) override;
    bool getValue(unsigned short& value) override;
    bool getValue(short& value) override;
    bool getValue(unsigned int& value) override;
    bool getValue(int& value) override;
    bool getValue(unsigned long& value) override;
    bool getValue(long& value) override;
    bool getValue(unsigned long long& value) override;
    bool getValue(long long& value) override;
    bool getValue(float& value) override;
    bool getValue(double& value) override;
    bool getValue(char* buffer, unsigned long& length) override;
    bool getValue(bool& value) override;

protected:
    ~CVariantRead() override;

private:
    template <class T>
    bool resolveInto(T& out, T (*resolve)(const tagTVARIANT*));

    tagTVARIANT* m_value = nullptr;
};

// Writes the variant it is pointed at; borrows it, never frees it.
class CVariantWrite : public IVariantWriteStub {
public:
    CVariantWrite() = default;

    // Points the writer at `value` (null: no value); nothing else.
    void setWrapperValue(tagTVARIANT* value) { m_value = value; }

    bool setType(const char* name) override;
    bool setValue(unsigned char value, bool keep) override;
    bool setValue(char value, bool keep) override;
    bool setValue(unsigned short value, bool keep) override;
    bool setValue(short value, bool keep) override;
    bool setValue(unsigned int value, bool keep) override;
    bool setValue(int value, bool keep) override;
    bool setValue(unsigned long value, bool keep) override;
    bool setValue(long value, bool keep) override;
    bool setValue(unsigned long long value, bool keep) override;
    bool setValue(long long value, bool keep) override;
    bool setValue(float value, bool keep) override;
    bool setValue(double value, bool keep) override;
    bool setValue(const char* value, bool keep) override;
    bool setValue(bool value, bool keep) override;

protected:
    ~CVariantWrite() override;

private:
    template <class T>
    bool storeWith(void (*set)(tagTVARIANT*, T, bool), T value, bool keep);

    tagTVARIANT* m_value = nullptr;
};

#endif
