// SPDX-License-Identifier: Apache-2.0
// A library needs a source.
