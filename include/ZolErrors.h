#ifndef ZOL_ERRORS_H
#define ZOL_ERRORS_H

/// Results of the library's operations. A layer passes the code of the layer below on unchanged.
enum EnumZolError
{
    ZOL_OK = 0,
    ZOL_ERR_FAILED = -1,      ///< null or bad argument, exit stage, failed start-up step, task not added yet
    ZOL_ERR_DECODE = -2,      ///< a payload could not be decoded
    ZOL_ERR_TIMEOUT = -3,     ///< no response within the time given
    ZOL_ERR_STAGE = -4,       ///< not initialised, or not allowed at the initial stage
    ZOL_ERR_INTERRUPTED = -5, ///< no live connection to the destination or to the gateway
    ZOL_ERR_NO_DEST = -6,     ///< no such task manager in the destination process; no such timer
    ZOL_ERR_MSG_TYPE = -7     ///< the type of the message is wrong for the operation
};

#endif
