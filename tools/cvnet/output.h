// SPDX-License-Identifier: BSD-3-Clause
// Standard output and standard error as the sub-commands use them: whole lines, a table that redraws itself
// on a terminal, and a reader that goes away without noise.
#ifndef CVNET_OUTPUT_H
#define CVNET_OUTPUT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace cvnet {

/// Lines for standard output. They are collected and written in large pieces; flush() before each wait.
/// A reader that closed its end (`| head -1`) is no error: closed() becomes true and what follows is
/// dropped. Any other failure throws Failure.
class Output {
public:
    Output();

    bool isTerminal() const { return terminal_; }

    /// Colours are for terminals, and not where NO_COLOR is set (https://no-color.org) or TERM is dumb.
    bool hasColours() const { return colours_; }

    bool closed() const { return closed_; }

    /// Looks whether the reader has gone, without writing; closed() tells.
    void lookForReader();

    /// Appends the text and an end of line.
    void line(std::string_view text);

    /// Shows lines in the place of those that the last draw() left, as far as the terminal is high and
    /// wide. Only on a terminal.
    void draw(std::string_view lines);

    /// Removes what draw() left.
    void erase();

    void flush();

    /// With false, a reader that is there but does not read makes nobody wait: flush() then writes what it
    /// takes at once, the rest stays, and lines beyond a megabyte of it are dropped.
    void setWaits(bool waits) { waits_ = waits; }

    /// Whether lines are there that the reader has not taken; and how many were dropped.
    bool hasPending() const { return !pending_.empty(); }
    std::uint64_t droppedLines() const { return droppedLines_; }

    /// Text in a colour or as it is: bold and dim are SGR 1 and 2, warnings 33, good results 32.
    std::string styled(int sgr, std::string_view text) const;

private:
    std::string_view write(std::string_view text);

    bool terminal_;
    bool colours_;
    bool closed_ = false;
    bool waits_ = true;
    std::size_t drawnLines_ = 0;
    std::uint64_t droppedLines_ = 0;
    std::string pending_;
};

/// Whether standard error is a terminal.
bool errorIsTerminal();

/// Writes a whole line to standard error, at once.
void errorLine(std::string_view text);

/// "cvnet recv: warning: " and the text, on standard error.
void warningLine(std::string_view text);

/// What errorLine and warningLine start with, "cvnet recv".
void setErrorPrefix(std::string_view prefix);

}  // namespace cvnet

#endif
