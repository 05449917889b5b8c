#pragma once

#include <functional>
#include <string>

#include "Kel/Exception.h"

// The what() of the exception of type E that `f` throws, or "(nothing thrown)":
// tests compare assertion and error texts exactly.
template <class E = Kel::AssertionError>
std::string thrownText(const std::function<void()>& f) {
   try {
      f();
   } catch (const E& e) {
      return e.what();
   }
   return "(nothing thrown)";
}
