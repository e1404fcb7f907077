#include "messages/message_request.h"

#include "message.h"

TESSEL_FUZZ_TARGET(message_request) {
  tessel::fuzz::receiveAndSendOn<tessel::MessageRequest>(messages);
}
