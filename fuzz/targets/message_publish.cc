#include "messages/message_publish.h"

#include "message.h"

TESSEL_FUZZ_TARGET(message_publish) {
  tessel::fuzz::receiveAndSendOn<tessel::MessagePublish>(messages);
}
