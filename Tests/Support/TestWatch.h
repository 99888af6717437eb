// Ends the program, naming the test, when one test does not end.
#pragma once

/// Once, between InitGoogleTest and RUN_ALL_TESTS.
void watchTests();
