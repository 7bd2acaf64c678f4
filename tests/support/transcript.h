// What a piece of code wrote on standard output and standard error, and the
// library's diagnostic lines made comparable as whole transcripts.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace brask::test {

struct Transcript {
    std::string out;  // descriptor 1
    std::string err;  // descriptor 2
};

// Runs `body` with descriptors 1 and 2 sent to files of their own and
// returns what each received, from `body` and from the children it forks.
// Buffered stdio output is flushed before and after, so none of it strays
// into or out of the transcript.
Transcript captureOutput(const std::function<void()>& body);

// `text` with the source line of every diagnostic tag masked, wherever the
// tag stands ("BRASK_ERR  : unit(123) : " becomes "BRASK_ERR  : unit(#) : ";
// likewise BRASK_DEBUG, the four-blank BRASK_ERR and BRASK_MSG[n] with its
// function name after), so that an edit above a line does not change it.
std::string maskLineNumbers(std::string_view text);

// The lines of `text` without their line feeds; a last line without one is
// a line as well (the library prints one message that way).
std::vector<std::string> lines(std::string_view text);

// The library's error lines of `text` (both widths of the BRASK_ERR tag),
// line numbers masked; commands' own complaints and debug lines left out.
std::vector<std::string> errorLines(std::string_view text);

}  // namespace brask::test
