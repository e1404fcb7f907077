#include "messages/message_registration.h"

#include "message.h"

TESSEL_FUZZ_TARGET(message_registration) {
  tessel::fuzz::receiveAndSendOn<tessel::MessageRegistration>(messages);
}
