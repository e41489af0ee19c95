#pragma once

// Marks a translation key that the code keeps in a table or assembles at run
// time, so the locale key check finds it: CORV_TR_KEY("CompareNode.Is").
// Expands to the literal itself.
#ifndef CORV_TR_KEY
#define CORV_TR_KEY(key) key
#endif
