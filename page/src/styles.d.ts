// SPDX-License-Identifier: LGPL-3.0-or-later
// Style sheets are imported for their effect.
declare module '*.css';
