#include "messages/message_unpublish.h"

#include "message.h"

TESSEL_FUZZ_TARGET(message_unpublish) {
  tessel::fuzz::receiveAndSendOn<tessel::MessageUnpublish>(messages);
}
