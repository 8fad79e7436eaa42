// What the tests share.
#pragma once
