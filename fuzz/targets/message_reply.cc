#include "messages/message_reply.h"

#include "message.h"

TESSEL_FUZZ_TARGET(message_reply) {
  tessel::fuzz::receiveAndSendOn<tessel::MessageReply>(messages);
}
