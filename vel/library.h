// Start and stop of the library.
#pragma once
