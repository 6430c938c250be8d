#ifndef EXCHANGE_PROTOCOL_H
#define EXCHANGE_PROTOCOL_H

#include <cstdint>

/// Who is who, and what they ask of each other. Bodies are the types of Exchange.asn1.
namespace exchange
{

const std::uint16_t MARKET_PROCESS = 20;
const std::uint16_t FIRST_CLIENT_PROCESS = 31;
const std::uint16_t CLIENT_PROCESSES = 3;

const std::uint8_t MARKET_MGR = 1; // in the market's process
const std::uint8_t TRADER_MGR = 1; // in each client's process
const std::uint8_t VIEW_MGR = 2;   // in each client's process: of its own, so that changes flow while the trader waits

const std::uint16_t MARKET_TASK = 1;
const std::uint16_t TRADER_TASK = 1;
const std::uint16_t VIEW_TASK = 1;

const std::uint32_t CMD_START = 1;    // from the main thread to a task of its own process: begin
const std::uint32_t CMD_ORDERS = 2;   // client to market, answered: Batch -> Receipt
const std::uint32_t CMD_DONE = 3;     // client to market, answered: nothing -> State
const std::uint32_t CMD_SNAPSHOT = 4; // client to market, through the gateway or direct, answered: nothing -> Levels
const std::uint32_t CMD_CHANGES = 5;  // market to subscribers: Levels
const std::uint32_t CMD_COMPARE = 6;  // trader to the view of its process: State

/// The setting of zol.cfg that names the market's own port.
const char *const KEY_MARKET_PORT = "MarketPort";

/// Orders that travel in one message.
const unsigned int BATCH_ORDERS = 20;

/// Seconds that an answer may take before the call is repeated.
const int CALL_SECONDS = 2;

} // namespace exchange

#endif
