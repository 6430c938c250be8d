#ifndef WORDCOUNT_PROTOCOL_H
#define WORDCOUNT_PROTOCOL_H

#include <cstdint>

/// Who is who, and what they say to each other. All bodies are text.
namespace wordcount
{

const std::uint16_t READER_PROCESS = 1;
const std::uint16_t FIRST_COUNTER_PROCESS = 11;
const std::uint16_t COUNTER_PROCESSES = 2;

const std::uint8_t READER_MGR = 1;    // in the reader's process
const std::uint8_t COLLECTOR_MGR = 2; // in the reader's process
const std::uint8_t COUNTER_MGR = 1;   // in each counter's process

const std::uint16_t READER_TASK = 1;
const std::uint16_t COLLECTOR_TASK = 1;
const std::uint16_t COUNTER_TASKS = 4; // ids 1 to 4, in each counter's process
const int COUNTER_THREADS = 2;

const std::uint32_t CMD_START = 1;    // to the reader, from its own main: begin
const std::uint32_t CMD_READY = 2;    // reader to counter, answered: are you there?
const std::uint32_t CMD_LINE = 3;     // reader to counter: one line, without its end
const std::uint32_t CMD_FINISH = 4;   // reader to counter: that was the last line
const std::uint32_t CMD_PROGRESS = 5; // counter to collector: how many messages more it has counted
const std::uint32_t CMD_COUNTS = 6;   // counter to collector: all that it has, see Words.h
const std::uint32_t CMD_PIECE = 7;    // reader to counter: words of a line that goes on, too long for one message

/// A counter reports its progress every so many messages.
const unsigned int PROGRESS_STEP = 1000;

} // namespace wordcount

#endif
