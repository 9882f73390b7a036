// The fuzzer's in-memory libraries: the per-input budget of pass-through calls.
#pragma once

// Every input starts with the same number of pass-through calls before they time out.
void resetFakeCallBudget();
