// The exchange with the controller: one request a cycle on a fresh connection, and what comes back.
#pragma once

#include <zmq.hpp>

#include "config.pb.h"
#include "probeEndpoints.h"

struct T_interface;

// Starts the live-data thread; returns 0.
int LiveData_ThreadStart(T_interface* device);
// Its body, with the T_interface as argument; returns in test mode only. A messaging error is not caught and
// ends the process.
void* My_LiveDataThreadFunction(void* argument);

// Fills the envelope's request. In channel-scan mode it takes the results not reported before, marks them
// reported, and empties the channel list when the scan is over. Takes channelListLock.
void create_message(T_interface* device, configuration::ConfigurationMessage* message, int sequenceNumber);

// Parses a received frame and acts on its response or else its clear request; a frame with neither is fatal.
// A frame that does not parse counts with the fields that could be read.
void analyzeMessage(T_interface* device, zmq::message_t* frame);
// Applies a response: in monitoring mode the changes of the channel set, under commandLock; in channel-scan
// mode new groups, for which the scan worker is started (after stopping and joining a running one).
void analyzeResponseMessage(T_interface* device, const configuration::ConfigurationMessage& message);
// Replaces every channel's stream with a fresh one when the request says so. Takes channelListLock.
void analyzeClearErrorMessage(T_interface* device, const configuration::ConfigurationMessage& message);
