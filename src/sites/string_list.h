// A list of texts in zol.conf.
#pragma once

#include <string>

#include "config/zol_configurator.h"

namespace zol {

// Gives each text of the list to take(text); missing(index) hears of an element that is none, counted from 0.
// Nothing happens when the key is no list.
template <typename Take, typename Missing>
void for_each_text(AConfigurator& conf, const std::string& list_key, Take&& take, Missing&& missing) {
  ConfigListIterator it(&conf, list_key.c_str());
  for (int i = 0, count = it.size(); i < count; ++i, ++it) {
    std::string text;
    if (conf.config.lookupValue(*it, text))
      take(text);
    else
      missing(i);
  }
}

}  // namespace zol
