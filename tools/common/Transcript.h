/// @file Transcript.h
/// Takes apart what a console sends.
///
/// What a console sends has no frames: an echo of what is typed, what commands write, prompts, what commands send to
/// the session through the console's own queue, and whatever queues answer, whenever they do. Any of it may contain
/// what looks like a prompt. So a session goes by something that nobody can guess, its mark:
/// - It is always typed half a line, which is never ended and so never runs. Behind each answer of a queue the console
///   repeats the prompt and the line: an answer ends where the prompt and the mark come again.
/// - Behind each command stands a question of the session's own that has the mark in it: for a report into a file that
///   cannot be opened. A command has written all it writes when the question is echoed, and what it has sent through
///   the console's queue has come when the question is answered, since that answer takes the same way.
///
/// Command, question and mark are sent in one piece. Where the network cuts it, answers come into the middle of the
/// typing: each then stands between the part that had been typed and the same part behind the next prompt.
#ifndef TOOLS_TRANSCRIPT_H
#define TOOLS_TRANSCRIPT_H

#include <string>

#include "Answer.h"

namespace tools {

/// What a session types for its own ends.
struct SessionKeys {
    std::string mark;
    std::string question; ///< the line, without its end
    std::string answer;   ///< how the answer to the question ends
};

/// New ones, that no text contains.
SessionKeys MakeSessionKeys();

/// Takes apart what came for a command: from the echo of its line to the mark behind the question's answer. What had
/// been typed before was erased.
/// @param bWhole  false: the session has ended or fallen silent before the question was answered
/// @param pAnswer its result becomes SyntaxError when the command has written that
/// @return false when the line is not even echoed
bool TakeTranscript(const SessionKeys& keys, const std::string& line, std::string came, bool bWhole, Answer* pAnswer);

/// Takes the answers of queues that are complete off the front of a text that came with the mark typed.
void TakeResponses(const SessionKeys& keys, std::string* pCame, Answer* pAnswer);

/// Text with LF at its line ends, and without the empty lines around it.
std::string Trimmed(const std::string& text);

/// LF at line ends alone.
std::string Readable(const std::string& text);

constexpr char kSyntaxError[] = "Syntax error.";

} // namespace tools

#endif // TOOLS_TRANSCRIPT_H
