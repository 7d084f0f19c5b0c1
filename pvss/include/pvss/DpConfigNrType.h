// DpConfigNrType: the number of a config of a data point element, as connectToData takes it.
#pragma once

using DpConfigNrType = unsigned short;
