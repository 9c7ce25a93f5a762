#pragma once

/// The foundation's two-valued truth type, used in signatures beside `bool`.
enum __boolean { FALSE = 0, TRUE = 1 };
