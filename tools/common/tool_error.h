#ifndef NK_TOOLS_TOOL_ERROR_H
#define NK_TOOLS_TOOL_ERROR_H

#include <stdexcept>
#include <string>

// A failure that ends a tool's command with one line on standard error. It never leaves
// the tools: the programs' main functions catch it.
struct ToolError : std::runtime_error
{
    explicit ToolError(std::string const& what) : std::runtime_error(what) {}
};

#endif
