// MOIRA_HD marks plain functions that both the host compiler and nvcc (for device code) build.
#pragma once

#ifdef __CUDACC__
#define MOIRA_HD __host__ __device__
#else
#define MOIRA_HD
#endif
