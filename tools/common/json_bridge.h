#ifndef NK_TOOLS_JSON_BRIDGE_H
#define NK_TOOLS_JSON_BRIDGE_H

#include <nlohmann/json.hpp>

#include "tJson.h"

// The tools edit JSON documents (add members, rewrite one) with nlohmann's ordered_json,
// which keeps the members in the order the library wrote them; these move a document
// between the two forms through its compact text.
using ToolJson = nlohmann::ordered_json;

ToolJson toToolJson(tJson const& json);
tJson toLibraryJson(ToolJson const& json);

// Ids are unsigned 64-bit numbers, which jq and JavaScript round above 2^53. Every member
// named "uid" or "imageUid" that holds a number gets a sibling "uidText" / "imageUidText"
// with the same value as decimal text, at any depth.
void addIdTexts(ToolJson& json);

#endif
