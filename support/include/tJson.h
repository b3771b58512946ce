#ifndef NK_TJSON_H
#define NK_TJSON_H

#include "tBlob.h"
#include "tString.h"
#include "tStringList.h"

// A JSON object whose members keep their insertion order (the order is part of every
// checksummed text). Getters give their default for a missing member or one of another
// type; nothing is thrown.
class NKS_API tJson
{
public:
    tJson();
    tJson(tJson const& other);
    tJson& operator=(tJson const& other);
    ~tJson();

    // Replaces the content by the object in text. Malformed text (or a value that is not
    // an object) gives false and an empty object.
    bool parse(tString const& text);
    // Compact text (no spaces, members in insertion order) or, with pretty, indented text.
    tString getJson(bool pretty) const;
    void clear();
    bool isEmpty() const;
    bool has(char const* key) const;

    // Setting a member that exists keeps its position and replaces its value.
    void addString(char const* key, tString const& value);
    long long addInt(char const* key, long long value);  // gives the value stored
    unsigned long long addUInt(char const* key, unsigned long long value);
    void addBool(char const* key, bool value);
    void addBinary(char const* key, tBlob const& value);  // base64 text
    void addStringArray(char const* key, tStringList const& values);
    void addObject(char const* key, tJson const& object);
    // Appends object to the array member key, creating the array first.
    void addToArray(char const* key, tJson const& object);

    tString getString(char const* key, tString const& def = tString()) const;
    long long getInt(char const* key, long long def = 0) const;  // any integer member
    unsigned long long getUInt(char const* key, unsigned long long def = 0) const;
    bool getBool(char const* key, bool def = false) const;
    // Decodes a base64 member into out; false (out empty) if missing or not base64.
    bool getBinary(char const* key, tBlob& out) const;
    // The string members of an array; false if key is not an array.
    bool getStringArray(char const* key, tStringList& out) const;
    bool getObject(char const* key, tJson& out) const;
    // Element index of the array member key, if it is an object.
    bool getArrayObject(char const* key, unsigned int index, tJson& out) const;
    unsigned int getArraySize(char const* key) const;

    struct Impl;

private:
    Impl* m_p;
};

#endif
