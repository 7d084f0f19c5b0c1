#include <kel/KelNames.h>

#include "wire/Topics.h"

std::string KelNames::faultOfPublication(std::string_view name) {
  std::string fault;
  return kel::encodeTopicName(name, fault) ? std::string() : fault;
}
