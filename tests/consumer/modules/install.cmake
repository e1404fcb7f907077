message(FATAL_ERROR "tessel has taken a module of its parent for its own")
